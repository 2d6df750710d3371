// Who offers and who uses what: the services by name, and the siids and message ids that were granted.
//
// - A siid belongs to one stub, to one function proxy, or to all subscribers of one signal service together.
// - A service that lost its owner is kept, without being offered, while it has users: offered again under its
//   name it has its old siids, and the users' proxies work on without subscribing again. Not so a function
//   that one and the same registration withdrew: its component may still have the withdrawn stub bound to the
//   old siid.
// - What is given back does not come into use again at once, so that what is still on its way to an earlier
//   holder does not reach a new one: siids when all have been used, ranges of message ids when 64 others are
//   free.
// - What fails for want of memory changes nothing.
#ifndef DIRECTORY_H
#define DIRECTORY_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "peer.h"

struct service;

// Serves requests to a service of the core itself.
struct service_handler {
  virtual void serve(peer& from, const service& asked, const KXmessage& request) = 0;

 protected:
  ~service_handler() = default;
};

// One component's subscriptions of a service. Which of its proxies of a signal leaves is not said, so their
// ranges of message ids are given back together, and until then used again by the component itself.
struct subscriptions {
  unsigned int count = 0;
  std::vector<std::uint32_t> ranges{};  // of a signal's: their first ids
};

// What the stub tells about itself.
struct service_description {
  unsigned int kind = 0;  // KXconnection::interface_type_e
  std::string xml_comment{};
  std::string interface_class{};
};

struct service {
  // The order in which a signal reaches its subscribers.
  struct by_path {
    using is_transparent = void;
    bool operator()(const peer* a, const peer* b) const { return a->mgmt_path < b->mgmt_path; }
    bool operator()(const std::string& a, const peer* b) const { return a < b->mgmt_path; }
    bool operator()(const peer* a, const std::string& b) const { return a->mgmt_path < b; }
  };

  std::string name;
  bool is_signal;
  std::uint32_t siid;                  // of the stub
  std::uint32_t subscribers_siid;      // shared by all subscribers; signals only
  peer* owner;                         // null: not offered at present
  service_handler* handler = nullptr;  // of a service of the core itself, else null
  unsigned long last_owner = 0;        // serial of the registration that offered it last
  std::map<peer*, subscriptions, by_path> users{};
  service_description description{};
  std::uint64_t passed[MSG_SIG + 1] = {};  // messages that it took or sent, by type

  bool is_offered() const { return owner != nullptr || handler != nullptr; }
  unsigned int uses() const;
};

struct endpoint {
  enum role_e { STUB, PROXY, SUBSCRIBERS };

  role_e role;
  std::shared_ptr<service> of;
  peer* owner;              // PROXY only
  std::uint32_t mid_first;  // PROXY only

  // The one component behind it; null for SUBSCRIBERS, and for a stub that is not offered at present.
  peer* holder() const { return role == STUB ? of->owner : owner; }
};

// Disjoint ranges of message ids.
class mid_ranges {
 public:
  static constexpr std::uint32_t size = 4096;

  struct holder {
    peer* component;  // null: nobody
    std::uint32_t siid;
  };

  bool exhausted() const { return m_free.empty() && m_next == last; }

  // Grants a range that nobody holds; its first id. Not when exhausted.
  std::uint32_t take(const holder& by);
  void give_back(std::uint32_t first);

  // Who holds the range in which this id lies.
  holder holder_of(std::uint32_t msg_id) const;

 private:
  static constexpr std::size_t quarantine = 64;
  static constexpr std::uint32_t last = 0x7FFFF000;

  std::uint32_t m_next = size;
  std::deque<std::uint32_t> m_free;
  std::vector<holder> m_holders;  // of the ranges from the first on
};

class directory {
 public:
  struct grant {
    std::uint32_t siid;
    std::uint32_t service_siid;
    std::uint32_t mid_first;
    std::uint32_t mid_end;
  };

  // The service offered under `name`, or null.
  std::shared_ptr<service> find_offered(const std::string& name) const;

  // Where messages for `siid` go, or null.
  const endpoint* find(std::uint32_t siid) const;

  // The name of the service that a siid is of, or an empty text.
  std::string name_of(std::uint32_t siid) const;

  // Whether `component` may send as `siid`.
  bool owns(const peer& component, std::uint32_t siid) const { return component.siids.count(siid) != 0; }

  bool has_message_ids() const { return !m_mids.exhausted(); }
  mid_ranges::holder id_holder(std::uint32_t msg_id) const { return m_mids.holder_of(msg_id); }

  // Grants a siid to a stub; nothing may be offered under `name`.
  std::uint32_t offer(peer& owner, const std::string& name, bool is_signal);

  // Offers a service of the core itself, for good.
  std::shared_ptr<service> offer_own(const std::string& name, bool is_signal, service_handler& handler);

  grant subscribe(peer& user, const std::shared_ptr<service>& wanted);  // while has_message_ids

  // Take back what `holder` was granted; false when it does not hold such a siid. Of a signal, one
  // subscription.
  bool withdraw(peer& holder, std::uint32_t siid, bool is_signal);
  bool unsubscribe(peer& holder, std::uint32_t siid, bool is_signal);

  // Takes back everything that `holder` was granted.
  void forget(peer& holder);

  // All services that are offered or used, in the order of their names, from behind `after` on.
  using service_map = std::map<std::string, std::shared_ptr<service>>;
  service_map::const_iterator behind(const std::string& after) const { return m_services.upper_bound(after); }
  service_map::const_iterator end() const { return m_services.end(); }

 private:
  static constexpr std::uint32_t first_siid = 2;
  static constexpr std::uint32_t last_siid = 0x7FFFFFFF;
  static constexpr std::uint32_t own_siids = 16;  // the last of them: for services of the core itself

  std::uint32_t take_siid();
  std::shared_ptr<service> find_kept(const peer& owner, const std::string& name, bool is_signal) const;
  std::shared_ptr<service> create(const std::string& name, bool is_signal);
  grant subscribe_function(peer& user, const std::shared_ptr<service>& wanted);
  grant subscribe_signal(peer& user, service& wanted);
  void leave(peer& user, service& used);
  void release_if_unused(const std::shared_ptr<service>& released);

  service_map m_services;
  std::unordered_map<std::uint32_t, endpoint> m_endpoints;
  mid_ranges m_mids;
  std::uint32_t m_next_siid = first_siid;
};

#endif
