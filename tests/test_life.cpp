// Lives a component's life in steps. Once it does everything, well and badly, and the log is what a firmware
// engineer reads, line by line: log_lines.txt, with the bytes of the management messages behind. Then, with
// one fault in each life, every system call and every allocation fails: each time the step has the outcome of
// the table, nothing is left behind, and the step then succeeds.
#include <arpa/inet.h>

#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "component_test.h"

namespace {

// Longer than a string holds without an allocation.
constexpr char name[] = "a-component-with-a-long-name";
constexpr char service[] = "a-service-with-a-long-name";
constexpr unsigned char answered = 1;

class life {
 public:
  life() {
    reset();
    fake_clock(100);
    before(SELECT, [this] { serve(); });
  }
  ~life() { disarm(); }

  std::string construct() {
    component.emplace(name);
    return "made";
  }

  std::string enter() {
    component->register_component();
    return component->m_kxcore_data_socket_name.empty() ? "not registered" : "registered";
  }

  std::string offer() {
    if (m_stub) m_stub->disconnect(true);
    m_stub.emplace(&*component).on_message = [this](KXmessage&) { ++m_messages; };
    m_stub->register_synchronous(service);
    return m_stub->m_siid == no_siid ? "not registered" : "registered";
  }

  std::string subscribe() {
    for (std::optional<proxy_probe>* const proxy : {&m_sync, &m_async, &m_signal}) {
      if (*proxy) (*proxy)->disconnect(true);
      proxy->emplace(&*component);
    }
    return std::to_string(m_sync->subscribe_synchronous(service) +
                          m_async->subscribe_asynchronous(service, nullptr) +
                          m_signal->subscribe_signal(service));
  }

  std::string request() { return std::to_string(send(*m_sync, answered)); }
  std::string notify() { return std::to_string(send(*m_async, 0) + send(*m_signal, 0)); }

  std::string receive() {
    m_messages = 0;
    m_arriving = 1;
    component->get_data_message(-1);
    return std::to_string(m_messages);
  }

  std::string stop() {
    component->stop();
    return component->m_data_fd + component->m_mgmt_fd == -2 ? "stopped" : "not stopped";
  }

  // Messages, timers and a descriptor, until a signal comes.
  std::string loop() {
    m_messages = 0;
    m_arriving = 2;
    component->set_aside(arriving());
    component->add_socket_descriptor(m_channel.ends[0], &m_readable, call);
    component->add_msec_timer(10, &m_tick, call, 0);
    before(POLL, [this] { serve(); });
    component->wait(true);
    return std::to_string(m_messages) + std::to_string(m_descriptors) + std::to_string(m_ticks) + ", " +
           stop();
  }

  // What the library refuses, drops or takes without need.
  void misuse() {
    KXproxy proxy(&*component);
    struct : KXstub {
      using KXstub::KXstub;
      const char* get_xml_comment() const override { return "a comment"; }
    } idle(&*component);
    KXmessage message = make_message(3, 9, MSG_SIG, 5, 77);
    peer_info_t peer;
    fail(SENDTO, EAGAIN, 3);
    component->register_component();
    for (const char* const path : {"", fake_core::data_path}) {
      m_path = path;
      component->register_component();
    }
    fail(SENDTO, EAGAIN, 3);
    component->unregister_component();
    proxy.proxy_send(message);
    m_stub->register_signal(service);
    stub_probe twin(&*component);
    m_siid = static_cast<int>(m_stub->m_siid) - 1;
    EXPECT_THROW(twin.register_asynchronous("twin"), KXerror::error_e);
    EXPECT_EQ(1, idle.register_signal("ticks"));
    fail(SENDTO, EAGAIN, 3);
    idle.disconnect(true);  // the notice cannot be sent: it stays bound
    idle.disconnect(true);
    m_answer = MSG_ERR;
    EXPECT_THROW(proxy.subscribe_asynchronous("absent", nullptr), KXerror::error_e);
    idle.connection_process_message(message);
    idle.process_message(message, peer);
    idle.KXconnection::connection_process_message(message);
    proxy.connection_process_message(message);
    core.data.send(component->m_data_socket_name, hex("1 2 3"));
    core.data.send(component->m_data_socket_name, message);
    EXPECT_EQ(0, send(*m_sync, 0)) << "nothing answers";
    m_async->disconnect(true);
    m_async->disconnect(true);
    m_async->proxy_send(message);
    component->remove_connection(&twin);
    fail(SENDTO, EAGAIN, 1);
    m_stub->connection_send(message);
    for (const std::string& path : {std::string("/tmp/kxcore/nobody"), std::string(108, 'x')})
      component->send_message_to(component->m_data_fd, path.c_str(), message);
    component->send_message_to(0, "", message);
    peer.path(component->m_data_socket_name);
    component->rec_message(-1, message, true, peer);
    component->add_timer(2, this, call, 2);
    component->has_timer(this, call, 2);
    component->del_timer(this, call, 2);
    component->add_socket_descriptor(-1, this, call);
    component->remove_socket_descriptor(0);
    component->add_close_cb([] { return 0; });
    component->set_aside(make_message(1, 1, MSG_SIG, 200, 5));
    fail(CLOCK_GETTIME, EINVAL);
    get_currentTime();
    message.incr_size(3000);
    message.incr_pos(3000);
    buffer_t(message.data, 3000) << std::string(2046, 'x');
  }

 private:
  static int send(proxy_probe& proxy, unsigned char cmd) {
    KXmessage message = make_message(0, 0, MSG_NONE, cmd, 0);
    return proxy.proxy_send(message);
  }

  KXmessage arriving() const { return make_message(m_stub->m_siid, 7, MSG_REQ, 3, 4); }

  // The core answers each management request and what is to be answered of the data.
  void serve() {
    core.reply(MSG_RSP, [this](KXmessage& reply) {
      reply.m_header->msg_type = m_answer;
      if (reply.m_header->cmd == CMD_REG_COMPONENT) return reply << m_path;
      for (const int value : {++m_siid, 40, 1000, 2000})
        reply << value;
    });
    core.serve();
    for (KXmessage data; core.data.receive(data);)
      if (data.m_header->cmd == answered) core.data.send(component->m_data_socket_name, data);
    for (; m_arriving > 0; --m_arriving)
      core.data.send(component->m_data_socket_name, arriving());
  }

  msg_type_e m_answer = MSG_RSP;
  const char* m_path = fake_core::data_path;
  int m_siid = 10;
  int m_arriving = 0;
  int m_messages = 0, m_descriptors = 0, m_ticks = 0;
  const channel m_channel;
  handler m_readable = [this](int) { return ++m_descriptors, -1; };
  handler m_tick = [this](int) { return ++m_ticks < 3 ? 0 : raise(SIGTERM) - 1; };
  std::optional<stub_probe> m_stub;
  std::optional<proxy_probe> m_sync, m_async, m_signal;

 public:
  fake_core core;
  std::optional<client_probe> component;
};

struct step {
  const char* name;
  std::string (life::*take)();
  const char* outcome;
  std::map<call_e, const char*> outcome_after;  // the failure of this call, where it differs
};

const step steps[] = {
    {"construct", &life::construct, "made", {{BIND, "error 2"}, {SOCKET, "error 2"}}},
    {"register", &life::enter, "registered", {{RECVFROM, "not registered"}}},
    {"register a stub", &life::offer, "registered", {{RECVFROM, "not registered"}}},
    {"subscribe", &life::subscribe, "3", {{RECVFROM, "2"}}},
    {"synchronous send", &life::request, "1", {{RECVFROM, "0"}}},
    {"asynchronous send, signal", &life::notify, "2", {}},
    {"receive", &life::receive, "1", {{RECVFROM, "0"}}},
    {"stop", &life::stop, "stopped", {}},
    {"loop", &life::loop, "313, stopped", {}},
};
constexpr const step* stop_step = &steps[7];

std::string outcome_of(const step& of, life& subject) {
  return ended([&] { return (subject.*of.take)(); });
}

std::string expected_outcome(const step& of, call_e failed) {
  const auto other = of.outcome_after.find(failed);
  if (other != of.outcome_after.end()) return other->second;
  return failed == NEW ? "out of memory" : of.outcome;
}

// Lives up to a step, takes it with the failure of a call behind so many others, and looks at what is left;
// whether there were so many.
bool live(const step& faulty, call_e call, int error, int others) {
  SCOPED_TRACE(faulty.name + (", " + std::to_string(others)) + " calls of kind " + std::to_string(call) +
               " before this: " + strerror(error));
  const auto descriptors_before = open_descriptors();
  const long blocks_before = allocated_blocks();
  bool failed = false;
  {
    life subject;
    for (const step* each = steps; each != stop_step && each != &faulty; ++each)
      EXPECT_EQ(each->outcome, outcome_of(*each, subject));
    fail(call, error, 1, others);
    const std::string outcome = outcome_of(faulty, subject);
    failed = has_failed(call);
    EXPECT_EQ(failed ? expected_outcome(faulty, call) : faulty.outcome, outcome);
    fail(call, 0, 0);
    EXPECT_TRUE(!subject.component || is_free(subject.component->m_mutex));
    if (&faulty < stop_step) {
      EXPECT_EQ(faulty.outcome, outcome_of(faulty, subject)) << "the next try";
    }
    EXPECT_EQ("stopped", subject.stop());
  }
  EXPECT_EQ(blocks_before, allocated_blocks());
  EXPECT_EQ(descriptors_before, open_descriptors());
  return failed;
}

// Line numbers, descriptors, addresses and command lines differ from run to run.
std::string masked(const std::string& line) {
  std::string text = line;
  const auto hide = [&text](std::size_t begin, std::size_t end) { text.replace(begin, end - begin, "#"); };
  for (const std::string mark : {":", "]=", "descriptor [", "connection=", ") to ", "sec id="}) {
    const std::size_t begin = text.find(mark) + mark.size();
    if (begin >= mark.size()) hide(begin, text.find_first_not_of("0123456789abcdefx", begin));
  }
  if (const std::size_t end = text.find(": killing"); end != std::string::npos)
    hide(text.find("from ") + 5, end);
  return (text.back() == '\n' ? text.substr(0, text.size() - 1) + "\\n" : text) + "\n";
}

using a_life = seam_test;

}  // namespace

TEST_F(a_life, is_told_in_the_log) {
  std::string told;
  std::set<unsigned int> ids = {0, 0x33333333};
  {
    life subject;
    fail(ACCESS, ENOENT, 2);
    for (const step& each : steps) {
      if (&each == stop_step) {
        subject.misuse();
      } else {
        EXPECT_EQ(each.outcome, outcome_of(each, subject));
      }
    }
    subject.component.reset();
    for (const log_line& line : lines())
      told += masked(line.text);
    subject.core.serve();
    for (KXmessage& message : subject.core.received) {
      const unsigned int id = ntohl(message.m_header->msg_id);
      EXPECT_TRUE(ids.insert(id).second || id == 0x11111111) << "reserved, or given twice";
      message.m_header->msg_id = 0;
      told += "management" + hex(bytes_of(message)) + "\n";
    }
  }
  EXPECT_TRUE(ids.count(0x11111111) == 1 && ids.count(0x22222222) == 1);
  std::ostringstream expected;
  expected << std::ifstream(LOG_LINES).rdbuf();
  EXPECT_EQ(expected.str(), told);
}

TEST_F(a_life, survives_the_failure_of_every_system_call_and_every_allocation) {
  for (const step& each : steps) {
    for (int call = 0; call < CALLS; ++call) {
      for (const int error : {ENOMEM, EINTR, EAGAIN, EBADF}) {
        for (int others = 0; live(each, static_cast<call_e>(call), error, others);)
          ++others;
      }
    }
  }
}
