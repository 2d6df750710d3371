/// @file
/// The core of a bus in the test's own process: who offers and uses what, and where messages go. A part of
/// kx/testing.h.
#ifndef KX_TESTING_CORE_H
#define KX_TESTING_CORE_H

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kx/result.h"
#include "kx/testing/directory.h"
#include "kx/values.h"

namespace kx::testing {

/// What kxcore decides, with its ids and in its words; without its limits, its lines and its services other
/// than kxcore.events.
class core {
 public:
  /// What a member of the bus is granted.
  struct grant {
    std::uint32_t siid = no_siid;
    std::uint32_t service_siid = no_siid;
    std::uint32_t first_id = 0;
    std::uint32_t end_id = 0;
  };

  /// Hands a message over to a member, with the name of the service that it is from, or to.
  using delivery = std::function<void(member&, const KXmessage&, const std::string& service)>;

  explicit core(delivery deliver) : m_deliver(std::move(deliver)) { restart(); }

  /// Whether it tells of what happens in kxcore.events, as it does unless this says otherwise.
  void tell_events(bool tells) { m_tells = tells; }

  /// Forgets everything, as one that was killed and started again.
  void restart() {
    m_members.clear();
    m_open.clear();
    m_directory.clear();
    m_next_id = ids;
  }

  /// The first and the last that a member does.
  /// @{
  void enter(member& by) {
    while (member* const before = find_named(by.member_name()))
      leave(*before, "it registered again");
    m_members[&by] = ++m_registrations;
    tell(1, by, "", "");
  }
  void leave(member& by, const char* why = "it unregistered") {
    if (!is_registered(by)) return;
    tell(2, by, "", why);
    m_members.erase(&by);
    fail_open([&](const request& each) { return m_directory.holder_of(each.to) == &by; },
              "the component is gone");
    m_open.erase(
        std::remove_if(m_open.begin(), m_open.end(), [&](const request& each) { return each.by == &by; }),
        m_open.end());
    for (const std::uint32_t siid : m_directory.siids_of(by))
      give_up(by, siid, "the component is gone");
  }
  /// @}

  bool is_registered(member& of) const { return m_members.count(&of) != 0; }

  /// Grants a siid to who offers a service, or an id range to who uses one; or says why not.
  /// @{
  result<grant> offer(member& by, const std::string& name, kind of) {
    if (!is_registered(by)) return refusal("the sender is not registered");
    if (const std::string reason = check_name(name); !reason.empty()) return refusal(reason);
    if (name.compare(0, 7, "kxcore.") == 0) return refusal("'" + name + "' is a name of the core's");
    std::shared_ptr<directory::service> offered = m_directory.find(name);
    if (offered != nullptr && offered->owner != nullptr)
      return refusal("'" + name + "' is offered by " + offered->owner->member_name());
    if (offered == nullptr || offered->of != of ||
        (of == kind::function && offered->last_owner == m_members[&by]))
      offered = m_directory.create(name, of);
    offered->owner = &by;
    offered->last_owner = m_members[&by];
    tell(3, by, name, "");
    return grant{offered->siid, offered->siid, 0, 0};
  }

  result<grant> use(member& by, const std::string& name, kind of) {
    if (!is_registered(by)) return refusal("the sender is not registered");
    if (const std::string reason = check_name(name); !reason.empty()) return refusal(reason);
    const std::shared_ptr<directory::service> used = m_directory.find(name);
    if (used == nullptr || !(used->owner != nullptr || (used->is_core && m_tells)))
      return refusal("nobody offers '" + name + "'");
    if (used->of != of)
      return refusal("'" + name + "' is a " + (used->of == kind::signal ? "signal" : "function"));
    const std::uint32_t siid = m_directory.subscribe(by, used);
    m_next_id += ids;
    tell(5, by, name, "");
    return grant{siid, used->siid, m_next_id - ids, m_next_id};
  }
  /// @}

  /// Takes back what a member was granted; what it does not have, not.
  void withdraw(member& by, std::uint32_t siid) {
    if (is_registered(by)) give_up(by, siid, nullptr);
  }

  /// Passes on what a member sends, or answers a request that cannot be.
  void route(member& by, const KXmessage& message) {
    const request way = request_of(by, message);
    if (!is_registered(by)) return refuse(way, "the sender is not registered");
    const directory::end* const found = m_directory.at(way.to);
    if (found == nullptr) return refuse(way, "no service has this siid");
    const directory::end to = *found;
    directory::service& serving = *to.of;
    const bool is_from_service = way.from == serving.siid;
    if (way.to != serving.siid && !is_from_service)
      return refuse(way, "only its service reaches a proxy or subscribers");
    if (is_from_service && serving.of == kind::signal) return fan_out(serving, message);
    member* const holder = way.to == serving.siid ? serving.owner : to.user;
    if (holder == nullptr) return refuse(way, "the service is not offered any more");
    if (way.to == serving.siid && serving.is_full)
      return refuse(way, "the component does not read, its queue is full");
    if (way.type == MSG_REQ) m_open.push_back(way);
    if (way.type == MSG_RSP || way.type == MSG_ERR) close(way);
    m_deliver(*holder, message, serving.name);
  }

  /// Whether the component that offers a service takes no messages.
  void set_full(const std::string& name, bool is_full) {
    if (const auto found = m_directory.find(name)) found->is_full = is_full;
  }

 private:
  static constexpr std::uint32_t ids = 4096;

  struct request {
    member* by;
    std::uint32_t from;
    std::uint32_t to;
    std::uint32_t msg_id;
    std::uint8_t type;
    std::uint8_t cmd;
  };

  static error refusal(const std::string& reason) { return {errc::refused, reason}; }

  static std::string check_name(const std::string& name) {
    const bool has_control =
        std::any_of(name.begin(), name.end(), [](unsigned char each) { return each < 0x20 || each == 0x7F; });
    if (!name.empty() && name.size() <= 255 && !has_control) return {};
    return "the name is empty, longer than 255 bytes or has control characters";
  }

  static request request_of(member& by, const KXmessage& message) {
    const msg_header_t& header = *message.m_header;
    return {&by,       ntohl(header.src_siid), ntohl(header.dst_siid), ntohl(header.msg_id), header.msg_type,
            header.cmd};
  }

  member* find_named(const std::string& name) const {
    const auto entry = std::find_if(m_members.begin(), m_members.end(),
                                    [&name](const auto& each) { return each.first->member_name() == name; });
    return entry == m_members.end() ? nullptr : entry->first;
  }

  // `why` is null for what the member wants itself.
  void give_up(member& by, std::uint32_t siid, const char* why) {
    const directory::end* const found = m_directory.at(siid);
    if (found == nullptr) return;
    const std::shared_ptr<directory::service> held = found->of;
    if (siid == held->siid) {
      if (held->owner != &by) return;
      held->owner = nullptr;
      fail_open([siid](const request& each) { return each.to == siid; }, "the service is withdrawn");
      tell(4, by, held->name, why != nullptr ? why : "it was withdrawn");
    } else {
      if (!m_directory.unsubscribe(by, siid, *held)) return;
      tell(6, by, held->name, why != nullptr ? why : "it ended its subscription");
    }
    m_directory.release_if_unused(held);
  }

  void fan_out(const directory::service& signal, const KXmessage& message) {
    KXmessage copy = message;
    copy.m_header->dst_siid = htonl(signal.users_siid);
    std::vector<member*> receivers = signal.users;
    std::sort(receivers.begin(), receivers.end(),
              [](const member* a, const member* b) { return a->member_name() < b->member_name(); });
    receivers.erase(std::unique(receivers.begin(), receivers.end()), receivers.end());
    for (member* const each : receivers)
      m_deliver(*each, copy, signal.name);
  }

  void close(const request& answer) {
    const auto open = std::find_if(m_open.begin(), m_open.end(), [&answer](const request& each) {
      return each.from == answer.to && each.to == answer.from && each.msg_id == answer.msg_id;
    });
    if (open != m_open.end()) m_open.erase(open);
  }

  template <class Predicate>
  void fail_open(Predicate is_meant, const char* reason) {
    for (;;) {
      const auto open = std::find_if(m_open.begin(), m_open.end(), is_meant);
      if (open == m_open.end()) return;
      const request failed = *open;
      m_open.erase(open);
      refuse(failed, reason);
    }
  }

  // Answers a request in the name of whom it was sent to; of other messages nobody is told.
  void refuse(const request& refused, const std::string& reason) {
    if (refused.type != MSG_REQ) return;
    KXmessage answer;
    answer.m_header->dst_siid = htonl(refused.from);
    answer.m_header->src_siid = htonl(refused.to);
    answer.m_header->msg_type = MSG_ERR;
    answer.m_header->cmd = refused.cmd;
    answer.m_header->msg_id = htonl(refused.msg_id);
    answer << reason;
    m_deliver(*refused.by, answer, "");
  }

  // Tells an event of kxcore.events.
  void tell(std::uint8_t what, const member& by, const std::string& of, const std::string& details) {
    const auto events = m_directory.find("kxcore.events");
    if (events == nullptr) return;
    KXmessage signal;
    signal.m_header->src_siid = htonl(events->siid);
    signal.m_header->msg_type = MSG_SIG;
    signal.m_header->cmd = what;
    write(signal, by.member_name(), of, details);
    fan_out(*events, signal);
  }

  const delivery m_deliver;
  bool m_tells = true;
  std::map<member*, unsigned long> m_members;  // with the numbers of their registrations
  unsigned long m_registrations = 0;
  directory m_directory;
  std::vector<request> m_open;
  std::uint32_t m_next_id = ids;
};

}  // namespace kx::testing

#endif
