// Lives a component's life in steps. Once it does everything, well and badly, and the log is what a firmware
// engineer reads, line by line: log_lines.txt, with the bytes of the management messages behind. Then, with
// one fault in each life, every system call fails with every error that its manual page names, and every
// allocation fails: each time the step has the outcome of the table, nothing is left behind, and the step
// then succeeds.
#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "probe.h"

using namespace seam;

namespace {

const std::map<call_e, std::vector<int>> errors = {
    {ACCESS, {EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
    {BIND,
     {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENOENT, ENOMEM, ENOTSOCK, EROFS}},
    {CLOCK_GETTIME, {EFAULT, EINVAL, ENODEV, EOVERFLOW, EPERM}},
    {CLOSE, {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
    {FCNTL, {EACCES, EAGAIN, EBADF, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK, EPERM}},
    {MKDIR, {EACCES, EDQUOT, EEXIST, EFAULT, ELOOP, EMLINK, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS}},
    {OPEN, {EACCES, EINTR, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENXIO, EPERM}},
    {POLL, {EFAULT, EINTR, EINVAL, ENOMEM}},
    {READ, {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR}},
    {RECVFROM, {EAGAIN, EBADF, ECONNREFUSED, EFAULT, EINTR, EINVAL, ENOMEM, ENOTCONN, ENOTSOCK}},
    {REMOVE, {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
    {SELECT, {EBADF, EINTR, EINVAL, ENOMEM}},
    {SENDTO, {EACCES,   EAGAIN,   EBADF,      ECONNREFUSED, ECONNRESET, EDESTADDRREQ, EFAULT,
              EINTR,    EINVAL,   EISCONN,    EMSGSIZE,     ENOBUFS,    ENOENT,       ENOMEM,
              ENOTCONN, ENOTSOCK, EOPNOTSUPP, EPERM,        EPIPE,      EPROTOTYPE}},
    {SETSOCKOPT, {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
    {SLEEP, {EINTR}},
    {SOCKET, {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}}};

// Longer than a string holds without an allocation.
constexpr char name[] = "a-component-with-a-long-name";
constexpr char service[] = "a-service-with-a-long-name";
constexpr unsigned char answered = 1;

class life {
 public:
  life() {
    EXPECT_EQ(0, pipe(m_pipe));
    reset();
    fake_clock(100);
    before(SELECT, [this] { serve(); });
  }
  ~life() {
    disarm();
    for (const int end : m_pipe)
      close(end);
  }

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
    int done = 0;
    for (std::optional<proxy_probe>* const proxy : {&m_sync, &m_async, &m_signal}) {
      if (*proxy) (*proxy)->disconnect(true);
      proxy->emplace(&*component);
    }
    done += m_sync->subscribe_synchronous(service);
    done += m_async->subscribe_asynchronous(service, nullptr);
    done += m_signal->subscribe_signal(service);
    return std::to_string(done);
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
    EXPECT_EQ(1, write(m_pipe[1], "x", 1));
    component->add_socket_descriptor(m_pipe[0], this, [](void* context, int) {
      ++static_cast<life*>(context)->m_descriptors;
      return -1;
    });
    component->add_msec_timer(
        10, this,
        [](void* context, int) {
          return ++static_cast<life*>(context)->m_ticks < 3 ? 0 : raise(SIGTERM) - 1;
        },
        0);
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
    const auto once = [](void*, int) { return -1; };
    component->add_timer(2, this, once, 2);
    component->has_timer(this, once, 2);
    component->del_timer(this, once, 2);
    component->add_socket_descriptor(-1, this, once);
    component->remove_socket_descriptor(0);
    component->add_close_cb([] { return 0; });
    component->set_aside(make_message(1, 1, MSG_SIG, 200, 5));
    fail(CLOCK_GETTIME, EINVAL);
    get_currentTime();
    message.incr_size(3000);
    message.incr_pos(3000);
    buffer_t(message.data, 3000) << std::string(2046, 'x');
  }

  bool mutex_is_free() {
    bool is_free = true;
    pthread_mutex_t* const mutex = &component->m_mutex;
    std::thread([&] {
      is_free = pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0;
    }).join();
    return is_free;
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
      if (reply.m_header->cmd == CMD_REG_COMPONENT) return reply << fake_core::data_path;
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
  int m_siid = 10;
  int m_arriving = 0;
  int m_messages = 0, m_descriptors = 0, m_ticks = 0;
  int m_pipe[2];
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
constexpr std::size_t stop_step = 7;

std::string outcome_of(const step& of, life& subject) {
  try {
    return (subject.*of.take)();
  } catch (KXerror::error_e error) {
    return "error " + std::to_string(error);
  } catch (const std::bad_alloc&) {
    return "out of memory";
  }
}

struct result {
  std::string outcome;
  std::size_t begin, end;  // the step's calls in those that were made
  bool out_of_memory;
};

// Lives up to a step, arms a fault, takes the step and looks at what is left.
result live(std::size_t last, const std::function<void()>& arm) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const step& faulty = steps[last];
  const auto descriptors_before = descriptors();
  const long blocks_before = allocated_blocks();
  result found = {};
  {
    life subject;
    for (std::size_t i = 0; i < std::min(last, stop_step); ++i)
      EXPECT_EQ(steps[i].outcome, outcome_of(steps[i], subject));
    found.begin = calls().size();
    arm();
    found.outcome = outcome_of(faulty, subject);
    found.end = calls().size();
    found.out_of_memory = allocation_failed();
    for (int call = 0; call < CALLS; ++call)
      fail(static_cast<call_e>(call), 0, 0);
    fail_allocation(0);
    EXPECT_TRUE(!subject.component || subject.mutex_is_free());
    if (last < stop_step) {
      EXPECT_EQ(faulty.outcome, outcome_of(faulty, subject)) << "the next try";
    }
    EXPECT_EQ("stopped", subject.stop());
  }
  EXPECT_EQ(blocks_before, allocated_blocks());
  EXPECT_EQ(descriptors_before, descriptors());
  return found;
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
      if (each.take == &life::stop) {
        subject.misuse();
      } else {
        EXPECT_EQ(each.outcome, outcome_of(each, subject));
      }
    }
    for (const log_line& line : lines())
      told += masked(line.text);
    for (const failed_assertion& each : failed_assertions())
      told.append(each.expression).append(" in ").append(each.function) += "\n";
    subject.core.serve();
    for (KXmessage& message : subject.core.received) {
      EXPECT_TRUE(ids.insert(ntohl(message.m_header->msg_id)).second) << "reserved, or given twice";
      message.m_header->msg_id = 0;
      told += "management" + hex(bytes_of(message)) + "\n";
    }
  }
  EXPECT_TRUE(ids.count(0x11111111) == 1 && ids.count(0x22222222) == 1);
  std::ostringstream expected;
  expected << std::ifstream(LOG_LINES).rdbuf();
  EXPECT_EQ(expected.str(), told);
}

TEST_F(a_life, survives_the_failure_of_every_system_call) {
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    const result clean = live(i, [] {});
    EXPECT_EQ(steps[i].outcome, clean.outcome);
    const std::vector<call_e> calls(seam::calls().begin() + clean.begin, seam::calls().begin() + clean.end);
    for (std::size_t n = 0; n < calls.size(); ++n) {
      const auto other = steps[i].outcome_after.find(calls[n]);
      const auto before = static_cast<int>(std::count(&calls[0], &calls[n], calls[n]));
      for (const int error : errors.at(calls[n])) {
        SCOPED_TRACE(steps[i].name + (", call " + std::to_string(n + 1)) + " of kind " +
                     std::to_string(calls[n]) + ": " + strerror(error));
        EXPECT_EQ(other != steps[i].outcome_after.end() ? other->second : steps[i].outcome,
                  live(i, [&] { fail(calls[n], error, 1, before); }).outcome);
      }
    }
  }
}

TEST_F(a_life, survives_the_failure_of_every_allocation) {
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    for (int n = 1;; ++n) {
      SCOPED_TRACE(steps[i].name + (", allocation " + std::to_string(n)));
      const result after = live(i, [&] { fail_allocation(n); });
      EXPECT_EQ(after.out_of_memory ? "out of memory" : steps[i].outcome, after.outcome);
      if (!after.out_of_memory) break;
    }
  }
}
