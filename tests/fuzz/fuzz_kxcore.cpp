// The core's rooms between members whose sockets and processes are in memory: the input chooses who sends
// what and in whose name, who reads, and who goes and comes. What was granted, and the rules, say what may
// arrive where, and what must.
#include <arpa/inet.h>

#include <string_view>
#include <tuple>
#include <vector>

#include "KXlog.h"
#include "datagram.h"
#include "management.h"
#include "memory_network.h"
#include "registrar.h"
#include "router.h"

namespace {

constexpr const char* services[] = {"f", "g", "s", "kxcore.s"};
constexpr std::size_t reserved_name = 3;
constexpr pid_t other = 512;                       // added to a pid, another process
constexpr std::uint32_t ids_each = 4096;           // in a range
constexpr std::uint32_t nobodys_ids = 0x7F000000;  // from here on
constexpr unsigned int remembered = 256;           // requests of a member
constexpr unsigned int max_answers = 512;          // to strangers, in an interval
constexpr std::size_t sure_backlog = 120 * 1024;   // behind less than this there is room in the core's queue

enum verdict_e { NO, YES, UNKNOWN };

// What a member was granted; the first of its subscriptions of a signal tells how many they are.
struct holding {
  endpoint::role_e role;
  bool is_signal;
  std::uint32_t siid;
  std::uint32_t service;  // siid of the stub
  std::size_t name;
  std::uint32_t first_id;  // 0: none
  unsigned int uses;

  bool has(std::uint32_t id) const { return first_id != 0 && id - first_id < ids_each; }
};

bool lives(pid_t pid) { return pid > 0 && !network::ended[static_cast<std::size_t>(pid)]; }

struct member {
  std::size_t index;
  network::receiver& mgmt;
  network::receiver& data;
  // LOST: its sockets are since it has registered, and whether the core knows is open
  enum state_e { ABSENT, REGISTERED, LOST } state = ABSENT;
  pid_t pid = 0;
  uid_t uid = 0;
  sender registered{};            // the last time
  ino_t inodes[2] = {};           // of its files then
  unsigned int registration = 0;  // counts
  unsigned int grants = 0;
  unsigned int requests = 0;
  std::size_t backlog = 0;  // bytes that wait in the core, at most
  std::vector<holding> holdings{};
  std::vector<std::uint32_t> withdrawn{};  // siids of functions

  unsigned int bit() const { return 1u << index; }

  bool is(const sender& from) const {
    return state == REGISTERED && from.uid == registered.uid &&
           (from.pid == registered.pid || !lives(registered.pid));
  }

  template <typename Predicate>
  holding* find(Predicate is_meant) {
    const auto found = std::find_if(holdings.begin(), holdings.end(), is_meant);
    return found == holdings.end() ? nullptr : &*found;
  }
  holding* find_siid(std::uint32_t siid) {
    return find([siid](const holding& each) { return each.siid == siid; });
  }
  holding* find_id(std::uint32_t id) {
    return find([id](const holding& each) { return each.has(id); });
  }
};

// A data message. Its payload is its index; sets of members are sets of bits.
struct sent {
  std::size_t by;
  unsigned int registration;
  std::uint32_t from;
  std::uint32_t to;
  std::uint32_t id;
  msg_type_e type;
  std::uint8_t cmd;
  int size;                   // of what follows its index
  std::uint32_t subscribers;  // the siid by which it reaches them, else 0
  unsigned int may_reach;
  unsigned int must_reach;
  unsigned int has_reached;
  unsigned int without_id;
  enum { CLOSED, OPEN, FAILED, UNSURE } state;  // of a request; UNSURE: it may have failed
  bool must_fail;
  unsigned int number;    // among the requests of the registration
  unsigned int failures;  // that have arrived
};

class world {
 public:
  world(feed& input, bool is_long) : m_input(input), m_is_long(is_long) {
    for (member& each : m_members)
      begin(each);
    if (m_input.below(2) == 0) furnish();
  }

  void live() {
    while (!m_input.done())
      act();
    for (member& each : m_members)
      read(each);
    for (member& each : m_members)
      return_to_bus(each);
    settle();
    for (member& each : m_members) {
      manage(each, each.registered, CMD_UNREG_COMPONENT, {MSG_REQ, 0, 0});
      settle();
    }
    REQUIRE(m_peers.size() == 0);
    for (std::uint32_t siid = 0; siid <= m_last_siid; ++siid)
      REQUIRE(m_peers.services().find(siid) == nullptr);
  }

 private:
  // All that must have arrived has, when everybody reads.
  void settle() {
    for (member& each : m_members)
      read(each);
    for (const sent& message : m_sent) {
      REQUIRE(message.must_reach == 0);
      REQUIRE(!message.must_fail || message.failures == 1 || !is_remembered(message));
    }
  }

  void act() {
    member& who = any_member();
    const std::size_t what = m_input.below(8);
    if (what == 0) return read(who);
    if (what == 1) return change(who);
    const bool is_management = what < 4;
    const std::size_t often = m_input.value<std::uint8_t>();
    const std::size_t times = often < 128 ? 1 : m_is_long ? 300 : often % 8;
    const sender from = sender_at(who, is_management ? who.mgmt : who.data);
    const auto cmd = static_cast<mgmt_cmd_e>(is_management ? m_input.below(12) : 0);
    if (who.state == member::LOST && from.uid == who.registered.uid && cmd != CMD_REG_COMPONENT) return;
    const demand asked = is_management ? any_demand(who) : demand{};
    sent message = is_management ? sent{} : any_message(who);
    for (std::size_t i = 0; i < times; ++i, ++message.id)
      is_management ? manage(who, from, cmd, asked) : send(who, from, message);
  }

  // A bus on which something is offered and used.
  void furnish() {
    using step = std::tuple<std::size_t, mgmt_cmd_e, std::size_t>;
    for (const auto& [who, cmd, name] :
         {step{0, CMD_REG_COMPONENT, 0}, step{1, CMD_REG_COMPONENT, 0}, step{2, CMD_REG_COMPONENT, 0},
          step{0, CMD_REG_FUNCTION, 0}, step{1, CMD_SUB_FUNCTION, 0}, step{1, CMD_REG_SIGNAL, 1},
          step{0, CMD_SUB_SIGNAL, 1}, step{2, CMD_SUB_SIGNAL, 1}, step{1, CMD_REG_FUNCTION, 2},
          step{0, CMD_SUB_FUNCTION, 2}})
      manage(m_members[who], itself(m_members[who]), cmd, {MSG_REQ, name, 0});
  }

  member& any_member() { return m_members[m_input.below(std::size(m_members))]; }

  static sender itself(const member& who) { return {who.mgmt.path, who.pid, who.uid}; }

  // As a rule the member itself.
  sender sender_at(const member& who, const network::receiver& at) {
    const std::size_t kind = m_input.below(16);
    if (kind == 3) return {at.path, 0, sender::overflow_uid};
    return {at.path, who.pid + (kind == 1 ? other : 0), who.uid + (kind == 2 ? 1 : 0)};
  }

  // --- members come and go ---

  void change(member& who) {
    const std::size_t what = m_input.below(8);
    if (what < 2) return look();
    if (what == 2) return link(m_input.below(2) == 0 ? who.mgmt : who.data);
    if (what == 3) return pass_time();
    if (what > 5 || m_last_pid == other - 4) return lose(who);
    if (what == 4) return begin(who);
    network::ended.set(static_cast<std::size_t>(who.pid));
    who.pid = ++m_last_pid;  // it goes on as a child
  }

  // Another's file takes the place of this one.
  void link(network::receiver& file) {
    const network::receiver& from = network::receivers[m_input.below(std::size(network::receivers))];
    file.inode = from.inode;
    file.owner = from.owner;
  }

  void pass_time() {
    network::now += strangers::answers_interval_ms;
    m_answers = 0;
  }

  void begin(member& who) {
    lose(who);
    for (sent& message : m_sent) {
      message.may_reach &= ~who.bit();
      if (message.by == who.index) message.failures = 1, message.must_fail = false;
    }
    who.uid = static_cast<uid_t>(1 + m_input.below(2));
    for (network::receiver* each : {&who.mgmt, &who.data}) {
      each->owner = who.uid;
      each->inode = ++m_last_inode;
      each->is_open = true;
      ++each->life;
    }
    who.pid = ++m_last_pid;
  }

  void lose(member& who) {
    who.mgmt.is_open = who.data.is_open = false;
    who.mgmt.count = who.data.count = 0;
    if (m_input.below(2) == 0) network::ended.set(static_cast<std::size_t>(who.pid));
    if (who.state == member::REGISTERED) end_registration(who, member::LOST);
  }

  // What the core does when processes have ended.
  void look() {
    if (!m_peers.serve(false)) return;
    m_peers.end_processes();
    m_peers.forget_gone();
  }

  void return_to_bus(member& who) {
    if (who.state == member::REGISTERED) return;
    network::ended.set(static_cast<std::size_t>(who.registered.pid));
    begin(who);
    manage(who, itself(who), CMD_REG_COMPONENT, {MSG_REQ, 0, 0});
    REQUIRE(who.state == member::REGISTERED);
  }

  void end_registration(member& who, member::state_e next) {
    for (sent& message : m_sent) {
      if (message.by == who.index) {
        message.must_fail = false;
      } else if ((message.may_reach & who.bit()) != 0 && message.subscribers == 0) {
        fail(message);
      }
      message.must_reach &= ~who.bit();
    }
    who.holdings.clear();
    who.withdrawn.clear();
    who.state = next;
    ++who.registration;
    who.grants = who.requests = 0;
    who.backlog = 0;
  }

  bool one_is_lost() const {
    return std::any_of(std::begin(m_members), std::end(m_members),
                       [](const member& each) { return each.state == member::LOST; });
  }

  // Whether what a stranger asks for has an answer, which somebody else's socket does not get.
  bool is_answered(const network::receiver& at, const sender& from) {
    return ++m_answers <= max_answers && at.is_open && at.count < network::max_unread &&
           (at.owner == from.uid || !from.is_known());
  }

  // --- management ---

  struct demand {
    msg_type_e type;
    std::size_t name;  // of a service
    std::uint32_t siid;
  };

  demand any_demand(const member& of) {
    const std::size_t kind = m_input.below(32);
    const msg_type_e type = kind < 24 ? MSG_REQ : static_cast<msg_type_e>(kind % 5);
    const std::size_t name = m_input.below(std::size(services));
    return {type, name, any_siid(m_input.below(4) == 0 ? any_member() : of)};
  }

  void manage(member& who, const sender& from, mgmt_cmd_e cmd, const demand& asked) {
    take_reply(who);
    const command_facts facts = facts_of(cmd);
    const bool names_itself = cmd == CMD_REG_COMPONENT || cmd == CMD_UNREG_COMPONENT;
    if (names_itself || one_is_lost()) pass_time();
    KXmessage message = make_management(asked.type, cmd, ++m_request);
    if (names_itself || facts.kind == OFFER) message << std::strrchr(who.mgmt.path, '/') + 1;
    if (cmd == CMD_REG_COMPONENT) message << who.data.path;
    if (facts.kind == OFFER || facts.kind == SUBSCRIPTION) message << services[asked.name];
    if (facts.kind == OFFER) message << "none", message << "none", message << (facts.of_signal ? 2u : 0u);
    if (facts.kind == WITHDRAWAL && !names_itself) message << asked.siid;

    const verdict_e expected = expect(who, from, cmd, asked);
    m_registrar.serve(from, message);
    m_peers.forget_gone();
    const KXmessage reply = take_reply(who);
    const std::uint8_t outcome = reply.m_header->msg_type;
    REQUIRE(outcome != MSG_RSP || expected != NO);
    REQUIRE(outcome != MSG_ERR || expected != YES);
    if (expected == YES || outcome == MSG_RSP) note(who, from, cmd, asked, reply);
    if (asked.type == MSG_REQ && who.state == member::LOST) return pass_time();
    const bool is_due = asked.type == MSG_REQ && (who.is(from) || is_answered(who.mgmt, from));
    REQUIRE((outcome != MSG_NONE) == is_due);
  }

  // Whether the core must carry a message out.
  verdict_e expect(member& who, const sender& from, mgmt_cmd_e cmd, const demand& asked) {
    const command_facts facts = facts_of(cmd);
    if (asked.type != MSG_REQ && (asked.type != MSG_SIG || facts.kind != WITHDRAWAL)) return NO;
    if (facts.kind == REGISTRATION) return expect_registration(who, from);
    if (!who.is(from) || facts.kind == OTHER) return NO;
    if (cmd == CMD_UNREG_COMPONENT) return YES;
    if (facts.kind == WITHDRAWAL) {
      const holding* const held = who.find_siid(asked.siid);
      const bool of_stub = cmd == CMD_UNREG_FUNCTION || cmd == CMD_UNREG_SIGNAL;
      if (held == nullptr || held->is_signal != facts.of_signal) return NO;
      return (held->role == endpoint::STUB) == of_stub ? YES : NO;
    }
    if (who.grants == peer::max_grants) return NO;
    const holding* const offer = offered(asked.name);
    if (facts.kind == OFFER) return offer == nullptr && asked.name != reserved_name ? YES : NO;
    if (offer == nullptr) return one_is_lost() ? UNKNOWN : NO;
    return offer->is_signal == facts.of_signal ? YES : NO;
  }

  verdict_e expect_registration(const member& who, const sender& from) const {
    const uid_t uid = from.is_known() ? from.uid : who.mgmt.owner;
    if (!who.mgmt.is_open || who.mgmt.owner != uid || who.data.owner != uid) return NO;
    verdict_e verdict = YES;
    for (const member& each : m_members) {
      const bool is_in_the_way =
          &each == &who ? each.registered.uid != from.uid && lives(each.registered.pid)
                        : each.inodes[0] == who.mgmt.inode || each.inodes[0] == who.data.inode ||
                              each.inodes[1] == who.mgmt.inode || each.inodes[1] == who.data.inode;
      if (!is_in_the_way || each.state == member::ABSENT) continue;
      if (each.state == member::REGISTERED) return NO;
      verdict = UNKNOWN;
    }
    return verdict;
  }

  // Takes note of what the core has carried out.
  void note(member& who, const sender& from, mgmt_cmd_e cmd, const demand& asked, const KXmessage& reply) {
    if (cmd == CMD_UNREG_COMPONENT) return end_registration(who, member::ABSENT);
    if (facts_of(cmd).kind == WITHDRAWAL) return give_back(who, *who.find_siid(asked.siid));
    if (cmd != CMD_REG_COMPONENT) return note_grant(who, reply, facts_of(cmd), asked.name);
    end_registration(who, member::REGISTERED);
    who.registered = {from.path, from.pid, who.mgmt.owner};
    who.inodes[0] = who.mgmt.inode;
    who.inodes[1] = who.data.inode;
  }

  const holding* offered(std::size_t name) {
    for (member& each : m_members) {
      const holding* const found =
          each.find([name](const holding& held) { return held.role == endpoint::STUB && held.name == name; });
      if (found != nullptr) return found;
    }
    return nullptr;
  }

  // The one to the last request; MSG_NONE when there is none.
  KXmessage take_reply(member& from) {
    KXmessage reply;
    for (; from.mgmt.count > 0; m_peers.serve(true)) {
      while (const network::unread_datagram* const datagram = from.mgmt.take()) {
        const KXmessage message = message_of(datagram->bytes, datagram->size);
        REQUIRE(message.m_header->msg_id == htonl(m_request) && reply.m_header->msg_type == MSG_NONE);
        reply = message;
      }
    }
    return reply;
  }

  void note_grant(member& to, const KXmessage& reply, const command_facts& facts, std::size_t name) {
    int values[4] = {};
    for (int i = 0; i < (facts.kind == OFFER ? 1 : 4); ++i)
      reply >> values[i];
    const auto siid = static_cast<std::uint32_t>(values[0]);
    holding granted = {endpoint::STUB, facts.of_signal, siid, siid, name, 0, 1};
    if (facts.kind == SUBSCRIPTION) {
      granted.role = facts.of_signal ? endpoint::SUBSCRIBERS : endpoint::PROXY;
      granted.service = static_cast<std::uint32_t>(values[1]);
      granted.first_id = static_cast<std::uint32_t>(values[2]);
      const holding* const offer = offered(name);
      REQUIRE(offer == nullptr || offer->siid == granted.service);
      REQUIRE(granted.first_id >= ids_each && values[3] - values[2] == ids_each);
    }
    for (const member& each : m_members)
      for (const holding& held : each.holdings)
        check_apart(granted, held, &each == &to);
    REQUIRE(std::count(to.withdrawn.begin(), to.withdrawn.end(), siid) == 0);
    ++to.grants;
    m_last_siid = std::max(m_last_siid, siid);
    if (holding* const former = to.find_siid(siid); former != nullptr) {
      ++former->uses;
      granted.uses = 0;
    }
    if (to.find_id(granted.first_id) == nullptr) to.holdings.push_back(granted);
  }

  static void check_apart(const holding& granted, const holding& held, bool of_one_member) {
    const bool are_shared = granted.role == endpoint::SUBSCRIBERS && held.role == endpoint::SUBSCRIBERS &&
                            granted.service == held.service;
    REQUIRE((granted.siid == held.siid) == are_shared);
    REQUIRE(granted.service != held.service ||
            (granted.name == held.name && granted.is_signal == held.is_signal));
    REQUIRE((are_shared && of_one_member) || !granted.has(held.first_id));
  }

  void give_back(member& from, holding& given) {
    --from.grants;
    if (--given.uses > 0) return;
    const std::uint32_t siid = given.siid;
    for (sent& message : m_sent)
      if (message.to == siid && given.role != endpoint::SUBSCRIBERS) fail(message);
    if (given.role == endpoint::STUB && !given.is_signal) from.withdrawn.push_back(siid);
    auto& all = from.holdings;
    all.erase(
        std::remove_if(all.begin(), all.end(), [siid](const holding& each) { return each.siid == siid; }),
        all.end());
  }

  // --- data ---

  // One that the member holds, or a small number.
  std::uint32_t any_siid(const member& of) {
    const std::size_t choice = m_input.value<std::uint8_t>();
    if (of.holdings.empty() || choice > 240) return static_cast<std::uint32_t>(choice % 24);
    return of.holdings[choice % of.holdings.size()].siid;
  }

  // The siid of a service, or of one who uses it.
  std::uint32_t opposite(const holding& of) {
    const holding* const user =
        any_member().find([&of](const holding& each) { return each.service == of.service; });
    return of.role == endpoint::STUB && user != nullptr ? user->siid : of.service;
  }

  // In somebody's range, in one that may have been, or in nobody's; and no other request's.
  std::uint32_t any_id() {
    const auto& all = any_member().holdings;
    const auto index = static_cast<std::uint32_t>(m_sent.size());
    const std::uint32_t choice = m_input.value<std::uint8_t>();
    if (choice > 230) return nobodys_ids + index;
    if (choice > 200 || all.empty()) return choice % 32 * ids_each + index;
    return all[choice % all.size()].first_id + index;
  }

  // That it is sent again and again, with the next id each time, does not make two requests the same.
  sent any_message(member& by) {
    const std::size_t index = m_sent.size();
    const std::size_t how = m_input.below(8);
    sent message = {};
    message.by = by.index;
    message.cmd = static_cast<std::uint8_t>(m_input.below(4));
    message.size = how == 7 ? 2000 : 0;
    if (how == 0 && index > 0) {  // an answer
      std::size_t at = index - 1 - m_input.below(std::min(index, std::size_t{255}));
      while (at > 0 && by.find_siid(m_sent[at].to) == nullptr)
        --at;
      const sent& asked = m_sent[at];
      message.from = asked.to;
      message.to = asked.from;
      message.id = asked.id;
      message.type = m_input.below(4) == 0 ? MSG_ERR : MSG_RSP;
    } else {
      message.from = any_siid(how == 1 ? any_member() : by);
      const holding* const held = by.find_siid(message.from);
      message.to = how < 5 && held != nullptr ? opposite(*held) : any_siid(any_member());
      message.id = any_id();
      const std::size_t type = m_input.below(8);
      message.type = type < 5 ? static_cast<msg_type_e>(type) : MSG_REQ;
    }
    return message;
  }

  void send(member& who, const sender& from, const sent& message) {
    KXmessage bytes;
    *bytes.m_header = {htonl(message.to), htonl(message.from), message.type, message.cmd, htonl(message.id)};
    bytes << static_cast<unsigned int>(m_sent.size());
    bytes.incr_size(message.size);
    m_sent.push_back(message);
    m_sent.back().registration = who.registration;
    predict(m_sent.back(), who, from, static_cast<std::size_t>(bytes.datagram_size()) + 128);
    m_router.serve(from, bytes);
    if (m_input.below(2) == 0) m_peers.forget_gone();
  }

  void predict(sent& message, member& by, const sender& from, std::size_t cost) {
    const bool is_request = message.type == MSG_REQ;
    if (!by.is(from)) {
      if (is_request) message.must_fail = is_answered(by.data, from);
      message.state = message.must_fail ? sent::FAILED : sent::CLOSED;
      return;
    }
    const holding* const source = by.find_siid(message.from);
    for (member& each : m_members) {
      m_is_sure = each.backlog < sure_backlog;
      if (source == nullptr || !reaches(message, *source, each)) continue;
      message.may_reach |= each.bit();
      if (m_is_sure) message.must_reach |= each.bit();
      each.backlog += cost;
    }
    if (!is_request) return;
    message.number = ++by.requests;
    message.state = sent::OPEN;
    const bool may_be_lost = source != nullptr && source->is_signal && one_is_lost();  // one who subscribes
    if (message.may_reach == 0 && !may_be_lost) return fail(message);
    if (message.must_reach == 0) message.state = sent::UNSURE;
    if (message.must_reach != 0 && is_asked(message)) message.state = sent::CLOSED;
  }

  // Whether the rules let it reach a member; to its sender it may go, as well.
  bool reaches(sent& message, const holding& source, member& to) {
    const bool to_all = message.type == MSG_SIG && message.to == source.siid && source.is_signal;
    const holding* const target = to.find([&](const holding& each) {
      return to_all ? each.role == endpoint::SUBSCRIBERS && each.service == source.siid
                    : each.siid == message.to;
    });
    if (target == nullptr) return false;
    if (target->role != endpoint::STUB && target->service != source.siid) return false;
    const holding* const range = to.find_id(message.id);
    if (target->role == endpoint::SUBSCRIBERS) {
      message.subscribers = target->siid;
      return reaches_subscriber(message, to, range);
    }
    const bool is_answer = message.type == MSG_RSP || message.type == MSG_ERR;
    const bool is_at_proxy = target->role == endpoint::PROXY;
    const verdict_e is_awaited = is_answer || is_at_proxy ? close(message, to) : NO;
    const bool could_mislead = range != nullptr && message.by != to.index && range->siid != target->siid;
    if ((!is_answer || is_at_proxy) && !could_mislead) return true;
    m_is_sure = m_is_sure && is_awaited == YES;
    return is_awaited != NO;
  }

  // To one of them goes what answers it, to the others what could not be taken for an answer there.
  bool reaches_subscriber(sent& message, member& to, const holding* range) {
    const bool is_from_another = range != nullptr && message.by != to.index;
    if (message.type == MSG_SIG) {
      if (is_from_another) message.without_id |= to.bit();
      return true;
    }
    if (range != nullptr && range->siid == message.subscribers) return close(message, to), true;
    if (is_asked(message)) return false;
    m_is_sure = m_is_sure && (message.id >= nobodys_ids || !one_is_lost());  // in whose range it may lie
    return !is_from_another;
  }

  // Whether the id is from the range of a subscriber.
  bool is_asked(const sent& message) {
    return std::any_of(std::begin(m_members), std::end(m_members), [&message](member& each) {
      const holding* const range = each.find_id(message.id);
      return range != nullptr && range->siid == message.subscribers;
    });
  }

  sent* find_request(const member& by, std::uint32_t from, std::uint32_t to, std::uint32_t id) {
    const auto found = std::find_if(m_sent.begin(), m_sent.end(), [&](const sent& each) {
      return each.id == id && each.type == MSG_REQ && each.by == by.index && each.from == from &&
             each.to == to;
    });
    return found == m_sent.end() ? nullptr : &*found;
  }

  bool is_remembered(const sent& request) const {
    const member& by = m_members[request.by];
    return request.registration == by.registration && by.requests - request.number < remembered;
  }

  // Closes the request that this answers; whether one was open.
  verdict_e close(const sent& answer, const member& requester) {
    sent* const request = find_request(requester, answer.to, answer.from, answer.id);
    if (request == nullptr || request->registration != requester.registration) return NO;
    if (request->state == sent::UNSURE) return UNKNOWN;
    if (request->state != sent::OPEN) return NO;
    request->state = sent::CLOSED;
    return is_remembered(*request) ? YES : UNKNOWN;
  }

  // The core answers in place of whom it was sent to, if it still knows of it.
  void fail(sent& request) {
    member& by = m_members[request.by];
    if (request.state != sent::OPEN || request.registration != by.registration) return;
    request.state = is_remembered(request) ? sent::FAILED : sent::UNSURE;
    request.must_fail = is_remembered(request) && by.backlog < sure_backlog;
    by.backlog += 300;
  }

  void read(member& who) {
    for (bool is_first = true; is_first || who.data.count > 0; is_first = false) {
      while (const network::unread_datagram* const datagram = who.data.take())
        check(who, message_of(datagram->bytes, datagram->size));
      m_peers.serve(true);
    }
    m_peers.forget_gone();
    who.backlog = 0;
  }

  void check(const member& to, const KXmessage& arrived) {
    const msg_header_t& header = *arrived.m_header;
    const std::uint32_t source = ntohl(header.src_siid);
    const std::uint32_t destination = ntohl(header.dst_siid);
    const std::uint32_t id = ntohl(header.msg_id);
    if (arrived.data[arrived.offset] == TAG_STRING) {
      sent* const request = find_request(to, destination, source, id);
      REQUIRE(request != nullptr && header.msg_type == MSG_ERR && header.cmd == request->cmd);
      REQUIRE(request->state == sent::FAILED || request->state == sent::UNSURE);
      REQUIRE(++request->failures == 1);
      return;
    }
    unsigned int index = 0;
    arrived >> index;
    sent& message = m_sent.at(index);
    REQUIRE((message.may_reach & ~message.has_reached & to.bit()) != 0);
    message.has_reached |= to.bit();
    message.must_reach &= ~to.bit();
    REQUIRE(source == message.from && header.msg_type == message.type && header.cmd == message.cmd);
    REQUIRE(destination == (message.subscribers != 0 ? message.subscribers : message.to));
    REQUIRE(id == ((message.without_id & to.bit()) != 0 ? 0 : message.id));
    std::size_t& last = m_last[message.by][to.index];
    REQUIRE(index >= last || m_sent[last].registration != message.registration);
    last = index;
  }

  feed& m_input;
  const bool m_is_long;  // whether it may do something very often
  member m_members[3] = {{0, network::receivers[0], network::receivers[1]},
                         {1, network::receivers[2], network::receivers[3]},
                         {2, network::receivers[4], network::receivers[5]}};
  std::vector<sent> m_sent;
  std::size_t m_last[3][3] = {};  // the message that arrived last, by sender and receiver
  pid_t m_last_pid = 0;
  ino_t m_last_inode = 0;
  std::uint32_t m_request = 0;
  std::uint32_t m_last_siid = 0;
  unsigned int m_answers = 0;  // to strangers, in this interval
  bool m_is_sure = true;       // whether a message that may reach a member must
  inline static reporter m_silent{false};
  strangers m_strangers{m_silent, "/bus/"};
  roster m_peers{m_silent};
  registrar m_registrar{m_peers, m_strangers, m_silent, "/bus/kxcore-d"};
  router m_router{m_peers, m_strangers, m_silent};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  feed input(bytes, size);
  g_traceObject->level = 0;
  network::ended.reset();
  for (network::receiver& each : network::receivers)
    each.is_open = false;
  // What is done often takes time. The fuzzer cannot tell which inputs may, and does not come to favour
  // those.
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  world(input, std::hash<std::string_view>()(text) % 64 == 0).live();
  REQUIRE(std::all_of(std::begin(network::descriptors), std::end(network::descriptors), network::is_free));
  return 0;
}
