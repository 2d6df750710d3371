// The core's rooms between members whose sockets and processes are in memory: the input chooses who sends
// what and in whose name, who reads, who goes and comes. What the core does is compared with a model.
#include <arpa/inet.h>

#include <string_view>

#include "KXlog.h"
#include "core_model.h"
#include "registrar.h"
#include "router.h"

namespace {

constexpr pid_t other = 512;  // added to a pid, another process

class world {
 public:
  world(feed& input, bool is_long) : m_input(input), m_is_long(is_long) {
    for (member& each : m_model.members)
      bind(each);
    if (m_input.below(2) == 0) furnish();
  }

  void live() {
    while (!m_input.done())
      act();
    for (const member& each : m_model.members)
      REQUIRE(each.registration == 0 || m_peers.at_mgmt(each.mgmt.path)->grants == each.grants);
    m_peers.give_up_unreachable();
    forget();
    settle();
    for (member& each : m_model.members) {
      if (each.registration != 0) manage(each, each.registered, {CMD_UNREG_COMPONENT, MSG_SIG, 0, 0});
      settle();
    }
    REQUIRE(m_peers.size() == 0);
    for (std::uint32_t i = 0; i <= m_last; ++i) {
      REQUIRE(m_peers.services().find(i) == nullptr);
      REQUIRE(m_peers.services().id_holder(i * ids_each).component == nullptr);
    }
  }

 private:
  // All that must arrive has, when everybody reads.
  void settle() {
    for (member& each : m_model.members) {
      read(each);
      for (const message& missing : each.awaited)
        REQUIRE(!missing.is_sure);
    }
  }

  void act() {
    member& who = any_member();
    const std::size_t what = m_input.below(8);
    if (what == 0) return m_input.below(2) == 0 ? read(who) : read_some(who);
    if (what == 1) return change(who);
    const std::size_t often = m_input.value<std::uint8_t>();
    const std::size_t times = often < 160 ? 1 : m_is_long ? 300 : often % (often < 232 ? 8 : 16);
    if (what < 4 || often % 2 == 0) forget();
    const sender from = any_sender(who, what < 4 ? who.mgmt : who.data);
    const demand asked = what < 4 ? any_demand(who) : demand{};
    message sent = what < 4 ? message{} : any_message(who);
    for (std::size_t i = 0; i < times; ++i, ++sent.id)
      what < 4 ? manage(who, from, asked) : send(who, from, sent);
  }

  // A bus on which something is offered and used.
  void furnish() {
    auto& [a, b, c] = m_model.members;
    for (member* each : {&a, &b, &c})
      ask(*each, CMD_REG_COMPONENT, 0);
    ask(a, CMD_REG_FUNCTION, 0);
    ask(b, CMD_SUB_FUNCTION, 0);
    ask(b, CMD_REG_SIGNAL, 1);
    ask(a, CMD_SUB_SIGNAL, 1);
    ask(c, CMD_SUB_SIGNAL, 1);
    ask(b, CMD_REG_FUNCTION, 2);
    ask(a, CMD_SUB_FUNCTION, 2);
  }
  void ask(member& who, mgmt_cmd_e cmd, std::size_t name) {
    manage(who, {who.mgmt.path, who.pid, who.uid}, {cmd, MSG_REQ, name, 0});
  }

  member& any_member() { return m_model.members[m_input.below(std::size(m_model.members))]; }

  // As a rule the member itself.
  sender any_sender(const member& who, const network::receiver& at) {
    const std::size_t kind = m_input.below(16);
    if (kind == 3) return {at.path, 0, sender::overflow_uid};
    return {at.path, who.pid + (kind == 1 ? other : 0), who.uid + (kind == 2 ? 1 : 0)};
  }

  // --- members come and go ---

  void change(member& who) {
    const std::size_t what = m_input.below(8);
    if (what < 2) {  // what the core does when processes have ended
      if (m_peers.serve(false)) m_peers.end_processes();
      forget();
    } else if (what == 2) {  // another's file takes the place of one
      const network::receiver& from = network::receivers[m_input.below(std::size(network::receivers))];
      network::receiver& file = m_input.below(2) == 0 ? who.mgmt : who.data;
      file.inode = from.inode;
      file.owner = from.owner;
    } else if (what == 3) {
      network::now += strangers::answers_interval_ms;
      m_model.answers = 0;
    } else if (what > 5 || m_last_pid == other - 4) {
      lose(who);
    } else if (what == 4) {
      bind(who);
    } else {  // it goes on as a child
      network::ended.set(static_cast<std::size_t>(who.pid));
      who.pid = ++m_last_pid;
    }
  }

  void bind(member& who) {
    lose(who);
    who.uid = static_cast<uid_t>(1 + m_input.below(2));
    who.pid = ++m_last_pid;
    who.mgmt.bind(who.uid);
    who.data.bind(who.uid);
  }

  // The core notices at once when something waits for room in the sockets.
  void lose(member& who) {
    who.mgmt.close();
    who.data.close();
    who.is_reachable = false;
    who.awaited.clear();
    if (m_input.below(2) == 0) network::ended.set(static_cast<std::size_t>(who.pid));
    m_peers.serve(true);
    forget();
  }

  void forget() {
    m_peers.forget_gone();
    for (member& each : m_model.members) {
      if (m_peers.size() < m_model.registered && m_peers.at_mgmt(each.mgmt.path) == nullptr) {
        REQUIRE(!each.is_reachable);
        m_model.end(each);
      }
      REQUIRE(!each.must_go);
    }
  }

  void read(member& who) {
    for (; who.data.count() > 0; m_peers.serve(true)) {
      read_some(who);
      m_model.arrive(who, who.data.take());
    }
    who.backlog = 0;
  }

  // All but the last, and the core does not notice yet that there is room.
  void read_some(member& who) {
    while (who.data.count() > 1)
      m_model.arrive(who, who.data.take());
  }

  // --- management ---

  demand any_demand(const member& of) {
    const auto cmd = static_cast<mgmt_cmd_e>(m_input.below(12));
    const std::size_t kind = m_input.below(32);
    const msg_type_e type = kind < 24 ? MSG_REQ : static_cast<msg_type_e>(kind % 5);
    const std::size_t name = m_input.below(std::size(services));
    return {cmd, type, name, any_siid(m_input.below(4) == 0 ? any_member() : of)};
  }

  void manage(member& who, const sender& from, const demand& asked) {
    const bool is_granted = m_model.is_granted(who, from, asked);
    m_registrar.serve(from, message_of(who, asked, ++m_index));
    if (is_granted && asked.cmd == CMD_REG_COMPONENT) {
      m_model.begin(who, from);
    } else if (is_granted && asked.cmd == CMD_UNREG_COMPONENT) {
      m_model.end(who);
    } else if (is_granted && facts_of(asked.cmd).kind == WITHDRAWAL) {
      m_model.give_back(who, asked.siid);
    }
    const bool is_known = who.is(from) && !who.must_go;
    const bool is_answered =
        asked.type == MSG_REQ && (is_known ? who.is_reachable : m_model.answers_stranger(who.mgmt, from));
    who.must_go = who.must_go || (asked.type == MSG_REQ && is_known && !who.is_reachable);
    forget();
    REQUIRE(who.mgmt.count() == (is_answered ? 1 : 0));
    if (!is_answered) m_model.held.last_offered[asked.name] = 0;
    if (is_answered) check_reply(who, asked, is_granted);
  }

  void check_reply(member& who, const demand& asked, bool is_granted) {
    const network::unread_datagram& unread = who.mgmt.take();
    const KXmessage reply = message_of(unread.bytes, unread.size);
    REQUIRE(reply.m_header->msg_id == htonl(m_index));
    REQUIRE(reply.m_header->msg_type == (is_granted ? MSG_RSP : MSG_ERR));
    const auto [kind, of_signal] = facts_of(asked.cmd);
    if (!is_granted || (kind != OFFER && kind != SUBSCRIPTION)) return;
    int numbers[4] = {};
    for (int i = 0; i < (kind == OFFER ? 1 : 4); ++i)
      reply >> numbers[i];
    const auto siid = static_cast<std::uint32_t>(numbers[0]);
    holding granted = {&who, endpoint::STUB, of_signal, siid, siid, asked.name, 0};
    if (kind == SUBSCRIPTION) {
      granted.role = of_signal ? endpoint::SUBSCRIBERS : endpoint::PROXY;
      granted.service = static_cast<std::uint32_t>(numbers[1]);
      granted.first_id = static_cast<std::uint32_t>(numbers[2]);
      const holding* const offered = m_model.held.find_offered(asked.name);
      REQUIRE(offered == nullptr || offered->siid == granted.service);
      REQUIRE(granted.first_id >= ids_each && numbers[3] - numbers[2] == ids_each);
    }
    m_last = std::max({m_last, granted.siid, granted.first_id / ids_each});
    m_model.held.take(granted);
  }

  // --- data ---

  // One that the member holds, or null.
  const holding* any_holding(const member& of) {
    const std::size_t choice = m_input.value<std::uint8_t>();
    return choice < 240 ? m_model.held.find_after(of, choice) : nullptr;
  }

  std::uint32_t any_siid(const member& of) {
    const holding* const held = any_holding(of);
    return held != nullptr ? held->siid : static_cast<std::uint32_t>(m_input.below(24));
  }

  // The siid of a service, or of one who uses it.
  std::uint32_t opposite(const holding& of) {
    const member& by = any_member();
    const holding* const user =
        m_model.held.find([&](const holding& each) { return each.by == &by && each.service == of.service; });
    return of.role == endpoint::STUB && user != nullptr ? user->siid : of.service;
  }

  // In somebody's range, or one that nobody has; and no other request's.
  std::uint32_t any_id() {
    const holding* const held = any_holding(any_member());
    return m_index +
           (held != nullptr ? held->first_id : static_cast<std::uint32_t>(m_input.below(32)) * ids_each);
  }

  message any_message(const member& by) {
    const std::size_t how = m_input.below(8);
    const auto cmd = static_cast<std::uint8_t>(m_input.below(4));
    const std::size_t kind = m_input.below(8);
    if (how == 0 && !m_asked.empty()) {  // an answer
      std::size_t at = m_asked.size() - 1 - m_input.below(std::min(m_asked.size(), std::size_t{255}));
      while (at > 0 && m_model.held.find_siid(by, m_asked[at].to) == nullptr)
        --at;
      const msg_type_e type = kind < 5 && kind != MSG_REQ ? static_cast<msg_type_e>(kind) : MSG_RSP;
      return {m_asked[at].from, m_asked[at].to, type, cmd, m_asked[at].id};
    }
    const msg_type_e type = kind < 5 ? static_cast<msg_type_e>(kind) : MSG_REQ;
    const std::uint32_t from = any_siid(how == 1 ? any_member() : by);
    const holding* const held = m_model.held.find_siid(by, from);
    const std::uint32_t to = how < 5 && held != nullptr ? opposite(*held) : any_siid(any_member());
    return {to, from, type, cmd, any_id(), how == 7 ? std::size_t{2000} : 0};
  }

  void send(member& who, const sender& from, message sent) {
    KXmessage bytes;
    *bytes.m_header = {htonl(sent.to), htonl(sent.from), sent.type, sent.cmd, htonl(sent.id)};
    bytes << (sent.index = ++m_index);
    bytes.incr_size(static_cast<int>(sent.size));
    sent.size = static_cast<std::size_t>(bytes.datagram_size());
    if (sent.type == MSG_REQ) m_asked.push_back(sent);
    m_model.send(who, from, sent);
    m_router.serve(from, bytes);
  }

  feed& m_input;
  const bool m_is_long;  // whether it may do something very often
  core_model m_model;
  std::vector<message> m_asked;  // all requests
  unsigned int m_index = 0;      // of messages
  pid_t m_last_pid = 0;
  std::uint32_t m_last = 0;  // siid, and range of message ids
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
  network::now = 0;
  // What is done often takes time. The fuzzer cannot tell which inputs may, and does not come to favour them.
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  world(input, std::hash<std::string_view>()(text) % 512 == 0).live();
  REQUIRE(std::none_of(std::begin(network::descriptors), std::end(network::descriptors), network::is_open));
  return 0;
}
