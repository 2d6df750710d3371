/// @file
/// Who offers and who uses what on the bus of a test. A part of kx/testing.h.
#ifndef KX_TESTING_DIRECTORY_H
#define KX_TESTING_DIRECTORY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kx/link.h"

namespace kx::testing {

/// Who is on the bus, as the core sees it.
class member {
 public:
  /// The name of the component.
  virtual const std::string& member_name() const = 0;

 protected:
  ~member() = default;
};

/// The services by name, and what each siid belongs to. A service that nobody offers is kept while it has
/// users.
class directory {
 public:
  struct service {
    std::string name;
    kind of;
    std::uint32_t siid;
    std::uint32_t users_siid;      // of a signal
    member* owner = nullptr;       // null: not offered at present
    unsigned long last_owner = 0;  // number of the registration that offered it last
    std::vector<member*> users{};
    bool is_core = false;
    bool is_full = false;
  };

  // What a siid belongs to: the stub or the subscribers of a service, or one user of it.
  struct end {
    std::shared_ptr<service> of;
    member* user = nullptr;
  };

  /// Nothing but what the core itself offers: behind two services that are not served here.
  void clear() {
    m_services.clear();
    m_ends.clear();
    m_next_siid = 0x7FFFFFF1;
    create("kxcore.events", kind::signal)->is_core = true;
    m_next_siid = 2;
  }

  std::shared_ptr<service> find(const std::string& name) const {
    const auto entry = m_services.find(name);
    return entry == m_services.end() ? nullptr : entry->second;
  }

  std::shared_ptr<service> create(const std::string& name, kind of) {
    auto made = std::make_shared<service>(service{name, of, take_siid(), no_siid});
    m_ends[made->siid] = {made};
    if (of == kind::signal) m_ends[made->users_siid = take_siid()] = {made};
    m_services[name] = made;
    return made;
  }

  const member* holder_of(std::uint32_t siid) const {
    const end* const found = at(siid);
    if (found == nullptr) return nullptr;
    return found->user != nullptr ? found->user : found->of->owner;
  }

  std::vector<std::uint32_t> siids_of(const member& of) const {
    std::vector<std::uint32_t> siids;
    for (const auto& [siid, held] : m_ends) {
      const std::vector<member*>& users = held.of->users;
      const bool is_owner = siid == held.of->siid && held.of->owner == &of;
      const auto uses = siid == held.of->users_siid ? std::count(users.begin(), users.end(), &of)
                                                    : (is_owner || held.user == &of ? 1 : 0);
      siids.insert(siids.end(), static_cast<std::size_t>(uses), siid);
    }
    return siids;
  }

  const end* at(std::uint32_t siid) const {
    const auto entry = m_ends.find(siid);
    return entry == m_ends.end() ? nullptr : &entry->second;
  }

  /// Lets a member use a service; the siid that it has then.
  std::uint32_t subscribe(member& by, const std::shared_ptr<service>& used) {
    used->users.push_back(&by);
    if (used->of == kind::signal) return used->users_siid;
    const std::uint32_t siid = take_siid();
    m_ends[siid] = {used, &by};
    return siid;
  }

  /// Ends that; false when it is not the member's.
  bool unsubscribe(member& by, std::uint32_t siid, service& used) {
    const auto user = std::find(used.users.begin(), used.users.end(), &by);
    if (user == used.users.end()) return false;
    used.users.erase(user);
    if (siid != used.users_siid) m_ends.erase(siid);
    return true;
  }

  void release_if_unused(const std::shared_ptr<service>& released) {
    if (released->is_core || released->owner != nullptr || !released->users.empty()) return;
    m_ends.erase(released->siid);
    m_ends.erase(released->users_siid);
    if (find(released->name) == released) m_services.erase(released->name);
  }

 private:
  std::uint32_t take_siid() { return m_next_siid++; }

  std::map<std::string, std::shared_ptr<service>> m_services;
  std::map<std::uint32_t, end> m_ends;
  std::uint32_t m_next_siid = 2;
};

}  // namespace kx::testing

#endif
