// What the core's model knows of three members: what they were granted, have asked, and are to get.
#ifndef TESTS_FUZZ_MEMBERS_H
#define TESTS_FUZZ_MEMBERS_H

#include <deque>
#include <tuple>
#include <vector>

#include "directory.h"
#include "management.h"
#include "memory_network.h"

constexpr std::uint32_t ids_each = 4096;  // in a range
constexpr const char* services[] = {"f", "g", "s", "kxcore.s"};
constexpr std::size_t reserved_name = 3;

struct message {
  std::uint32_t to;
  std::uint32_t from;
  std::uint8_t type;
  std::uint8_t cmd;
  std::uint32_t id;
  std::size_t size = 0;     // of the datagram; not told of the core's answers
  unsigned int index = 0;   // among all messages; 0: the core's
  unsigned int by = 0;      // the registration of who sends it; 0: the core
  unsigned int number = 0;  // of a request among those of its registration
  bool is_sure = true;      // that it arrives, or that it is open

  bool is(const message& other) const {
    return std::tie(to, from, type, cmd, id, size, index) ==
           std::tie(other.to, other.from, other.type, other.cmd, other.id, other.size, other.index);
  }
};

// What a component asks the core for.
struct demand {
  mgmt_cmd_e cmd;
  msg_type_e type;
  std::size_t name;  // of a service
  std::uint32_t siid;
};

inline bool lives(pid_t pid) { return pid > 0 && !network::ended[static_cast<std::size_t>(pid)]; }

struct member {
  explicit member(network::receiver* sockets) : mgmt(sockets[0]), data(sockets[1]) {}

  network::receiver& mgmt;
  network::receiver& data;
  pid_t pid = 0;
  uid_t uid = 0;
  unsigned int registration = 0;  // its number; 0: none
  bool is_reachable = false;      // its sockets are those that it has registered
  bool must_go = false;           // the core has noticed that it is not reachable
  sender registered{};
  ino_t inodes[2] = {};  // of its files when it registered
  unsigned int grants = 0;
  unsigned int requests = 0;
  std::size_t backlog = 0;                 // bytes that wait in the core, at most
  std::vector<std::uint32_t> withdrawn{};  // siids of functions
  std::vector<message> open{};
  std::deque<message> awaited{};

  bool is(const sender& from) const {
    return registration != 0 && from.uid == registered.uid &&
           (from.pid == registered.pid || !lives(registered.pid));
  }
};

inline KXmessage message_of(const member& who, const demand& asked, std::uint32_t id) {
  const auto [kind, of_signal] = facts_of(asked.cmd);
  const bool names_itself = asked.cmd == CMD_REG_COMPONENT || asked.cmd == CMD_UNREG_COMPONENT;
  KXmessage message = make_management(asked.type, asked.cmd, id);
  if (names_itself || kind == OFFER) message << std::strrchr(who.mgmt.path, '/') + 1;
  if (asked.cmd == CMD_REG_COMPONENT) message << who.data.path;
  if (kind == OFFER || kind == SUBSCRIPTION) message << services[asked.name];
  if (kind == OFFER) message << "none", message << "none", message << (of_signal ? 2u : 0u);
  if (kind == WITHDRAWAL && !names_itself) message << asked.siid;
  return message;
}

// What a member was granted; of a signal, one subscription.
struct holding {
  member* by;
  endpoint::role_e role;
  bool is_signal;
  std::uint32_t siid;
  std::uint32_t service;  // siid of the stub
  std::size_t name;
  std::uint32_t first_id;      // 0: none
  bool is_given_back = false;  // it stays with the member's other subscriptions of the signal

  bool has(std::uint32_t id) const { return first_id != 0 && id - first_id < ids_each; }
};

// All that was granted.
class holdings {
 public:
  std::uint32_t last_offered[std::size(services)] = {};  // siids; 0: not known

  template <typename Predicate>
  const holding* find(Predicate is_meant) const {
    const auto found = std::find_if(m_all.begin(), m_all.end(), is_meant);
    return found == m_all.end() ? nullptr : &*found;
  }
  const holding* find_offered(std::size_t name) const {
    return find([name](const holding& each) { return each.role == endpoint::STUB && each.name == name; });
  }
  const holding* find_siid(const member& by, std::uint32_t siid) const {
    return find([&by, siid](const holding& each) { return each.by == &by && each.siid == siid; });
  }

  // The one of a member from this number on, or null.
  const holding* find_after(const member& by, std::size_t number) const {
    for (std::size_t i = 0; i < m_all.size(); ++i)
      if (const holding& each = m_all[(number + i) % m_all.size()]; each.by == &by) return &each;
    return nullptr;
  }

  // Says what does not fit to what others hold.
  void take(const holding& granted) {
    for (const holding& held : m_all) {
      const bool are_shared = granted.role == endpoint::SUBSCRIBERS && held.role == endpoint::SUBSCRIBERS &&
                              granted.service == held.service;
      REQUIRE((granted.siid == held.siid) == are_shared);
      REQUIRE(granted.service != held.service ||
              (granted.name == held.name && granted.is_signal == held.is_signal));
      REQUIRE((are_shared && granted.by == held.by) || !granted.has(held.first_id));
    }
    const auto& withdrawn = granted.by->withdrawn;
    REQUIRE(std::count(withdrawn.begin(), withdrawn.end(), granted.siid) == 0);
    if (granted.role == endpoint::STUB) check_kept(granted, last_offered[granted.name]);
    ++granted.by->grants;
    m_all.push_back(granted);
  }

  // Whether that was the last one with this siid, which it has until it is dropped.
  bool give_back(member& from, std::uint32_t siid) {
    --from.grants;
    const auto is_held = [&from, siid](const holding& each) {
      return each.by == &from && each.siid == siid && !each.is_given_back;
    };
    std::find_if(m_all.begin(), m_all.end(), is_held)->is_given_back = true;
    return find(is_held) == nullptr;
  }

  template <typename Predicate>
  void drop(Predicate is_meant) {
    m_all.erase(std::remove_if(m_all.begin(), m_all.end(), is_meant), m_all.end());
  }

 private:
  // A service that is offered again has its siid, when it has users and this registration has not withdrawn
  // it.
  void check_kept(const holding& offered, std::uint32_t& last) const {
    const auto& withdrawn = offered.by->withdrawn;
    const bool is_withdrawn = std::count(withdrawn.begin(), withdrawn.end(), last) > 0;
    const bool has_users = find([&offered, last](const holding& each) {
                             return each.service == last && each.is_signal == offered.is_signal;
                           }) != nullptr;
    REQUIRE(offered.siid == last || !has_users || is_withdrawn);
    last = offered.siid;
  }

  std::vector<holding> m_all;
};

#endif
