// The real kxcore, and real processes around it. Raw sockets play components where the bytes are the point.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "child_process.h"
#include "probe.h"

namespace {

constexpr int patience_ms = 10'000;

// The words are separated by bars: kxcore, behind its emulator when it is built for another processor.
std::vector<std::string> core_command() {
  std::istringstream words(KXCORE_COMMAND);
  std::vector<std::string> command;
  for (std::string word; std::getline(words, word, '|');)
    command.push_back(word);
  return command;
}

KXmessage next_message(const raw_socket& from) {
  pollfd entry = {from.fd(), POLLIN, 0};
  EXPECT_EQ(1, poll(&entry, 1, patience_ms)) << "nothing came to " << from.path();
  return from.receive_message();
}

std::vector<unsigned char> header_of(const KXmessage& message) {
  std::vector<unsigned char> bytes = bytes_of(message);
  bytes.resize(sizeof(msg_header_t));
  return bytes;
}

std::vector<int> ints_of(const KXmessage& message) {
  std::vector<int> values;
  for (int value; message.pos < message.size; values.push_back(value))
    message >> value;
  return values;
}

// The core's own queue may be full for a moment.
void send_patiently(const raw_socket& from, const std::string& to, const std::vector<unsigned char>& bytes) {
  while (!from.send(to, bytes)) {
    if (errno != EAGAIN) return;
    usleep(100);
  }
}

using payload_t = std::function<void(KXmessage&)>;

// A component made of two raw sockets.
struct raw_component {
  explicit raw_component(const std::string& component)
      : name(component), mgmt("/tmp/kxcore/" + name), data("/tmp/kxcore/" + name + "-d") {}

  KXmessage exchange(mgmt_cmd_e cmd, const payload_t& fill, msg_type_e type = MSG_REQ) {
    KXmessage request = make_message(7, 8, type, cmd, ++last_id);
    if (fill) fill(request);
    send_patiently(mgmt, fake_core::mgmt_path, bytes_of(request));
    if (type != MSG_REQ) return request;
    KXmessage reply = next_message(mgmt);
    EXPECT_EQ(header_of(make_message(1, 1, static_cast<msg_type_e>(reply.m_header->msg_type), cmd, last_id)),
              header_of(reply));
    return reply;
  }
  KXmessage enter() {
    return exchange(CMD_REG_COMPONENT, [&](KXmessage& m) { m << name, m << data.path(); });
  }
  int offer(const std::string& service, unsigned int type) {
    const KXmessage reply = exchange(type == 2 ? CMD_REG_SIGNAL : CMD_REG_FUNCTION, [&](KXmessage& m) {
      for (const std::string& text : {name, service, std::string("none"), std::string("none")})
        m << text;
      m << type;
    });
    return reply.m_header->msg_type == MSG_RSP ? ints_of(reply).at(0) : -1;
  }
  std::vector<int> subscribe(const std::string& service, bool signal) {
    const KXmessage reply =
        exchange(signal ? CMD_SUB_SIGNAL : CMD_SUB_FUNCTION, [&](KXmessage& m) { m << service; });
    return reply.m_header->msg_type == MSG_RSP ? ints_of(reply) : std::vector<int>{};
  }
  void notify(mgmt_cmd_e cmd, int siid) {
    exchange(
        cmd, [&](KXmessage& m) { m << static_cast<unsigned int>(siid); }, MSG_SIG);
  }
  void send(int dst, int src, msg_type_e type, unsigned int id) const {
    send_patiently(
        data, fake_core::data_path,
        bytes_of(make_message(static_cast<unsigned int>(dst), static_cast<unsigned int>(src), type, 5, id)));
  }

  std::string name;
  raw_socket mgmt;
  raw_socket data;
  unsigned int last_id = 100;
};

class kxcore : public testing::Test {
 protected:
  // Once it answers, the setting that its sockets were created with is what it was.
  void SetUp() override {
    ASSERT_TRUE(wait_until_bound(m_core, fake_core::data_path));
    raw_component("first").exchange(CMD_NONE, nullptr);
  }

  void TearDown() override {
    if (!m_core.has_ended()) m_core.end(SIGKILL);
  }

  child_process m_core{core_command()};
};

}  // namespace

TEST_F(kxcore, grants_disjoint_siids_and_message_ids) {
  raw_component server("server");
  raw_component client("client");
  std::string data_path;
  const KXmessage reply = server.enter();
  reply >> data_path;
  EXPECT_EQ(fake_core::data_path, data_path);
  client.enter();
  const int get = server.offer("get", 0);
  const int tick = server.offer("tick", 2);
  const auto first = client.subscribe("get", false);
  const auto second = client.subscribe("get", false);
  const auto signal = client.subscribe("tick", true);
  const auto again = client.subscribe("tick", true);
  EXPECT_EQ(get, first.at(1));
  EXPECT_EQ(tick, signal.at(1));
  EXPECT_EQ(signal.at(0), again.at(0)) << "the subscribers of a signal share one siid";
  EXPECT_EQ(5u, (std::set<int>{get, tick, first.at(0), second.at(0), signal.at(0)}.size()));
  std::set<int> starts;
  for (const auto& grant : {first, second, signal, again}) {
    EXPECT_LT(grant.at(2), grant.at(3));
    for (const int start : starts)
      EXPECT_TRUE(grant.at(3) <= start || start + 4096 <= grant.at(2));
    starts.insert(grant.at(2));
  }
}

TEST_F(kxcore, refuses_with_err_and_goes_on) {
  raw_component server("server");
  raw_component other("other");
  server.enter();
  ASSERT_GT(server.offer("get", 0), 0);
  ASSERT_GT(server.offer("tick", 2), 0);
  EXPECT_EQ(-1, other.offer("new", 0)) << "a sender that is not registered";
  other.enter();
  EXPECT_EQ(-1, other.offer("get", 1)) << "a name that is taken";
  EXPECT_EQ(-1, server.offer("get", 2)) << "a name of one's own that is taken";
  EXPECT_EQ(-1, other.offer("odd", 3)) << "an interface type that does not exist";
  EXPECT_TRUE(other.subscribe("absent", false).empty());
  EXPECT_TRUE(other.subscribe("get", true).empty());
  EXPECT_TRUE(other.subscribe("tick", false).empty());
  for (const int cmd : {0, 3, 4, 5, 7, 8, 9, 11, 12, 255}) {
    const KXmessage reply = other.exchange(static_cast<mgmt_cmd_e>(cmd), [](KXmessage& m) { m << 7; });
    EXPECT_EQ(MSG_ERR, reply.m_header->msg_type) << cmd;
  }
  for (const mgmt_cmd_e cmd : {CMD_UNREG_FUNCTION, CMD_UNSUB_FUNCTION, CMD_KILL_COMPONENT})
    other.notify(cmd, 2);
  EXPECT_EQ(4u, other.subscribe("get", false).size()) << "what another owns is not withdrawn";
}

TEST_F(kxcore, routes_data_by_destination_and_checks_the_source) {
  raw_component server("server");
  raw_component client("client");
  server.enter();
  client.enter();
  const int get = server.offer("get", 0);
  const int proxy = client.subscribe("get", false).at(0);
  client.send(get, get, MSG_REQ, 50);  // as somebody else: dropped, with nothing to answer
  client.send(get, proxy, MSG_REQ, 51);
  EXPECT_EQ(bytes_of(make_message(get, proxy, MSG_REQ, 5, 51)), bytes_of(next_message(server.data)));
  server.send(proxy, get, MSG_RSP, 51);
  EXPECT_EQ(51u, ntohl(next_message(client.data).m_header->msg_id));
  client.send(99999, proxy, MSG_SIG, 52);  // only a request is answered
  client.send(99999, proxy, MSG_REQ, 53);
  EXPECT_EQ(header_of(make_message(proxy, 99999, MSG_ERR, 5, 53)), header_of(next_message(client.data)));
}

TEST_F(kxcore, sends_a_signal_once_to_each_subscribing_component) {
  raw_component source("source");
  raw_component twice("twice");
  raw_component once("once");
  for (raw_component* each : {&source, &twice, &once})
    each->enter();
  const int tick = source.offer("tick", 2);
  const int shared = twice.subscribe("tick", true).at(0);
  twice.subscribe("tick", true);
  once.subscribe("tick", true);
  source.send(tick, tick, MSG_SIG, 1);
  const auto expected = bytes_of(make_message(shared, tick, MSG_SIG, 5, 1));
  EXPECT_EQ(expected, bytes_of(next_message(twice.data)));
  EXPECT_EQ(expected, bytes_of(next_message(once.data)));
  twice.notify(CMD_UNSUB_SIGNAL, shared);
  once.notify(CMD_UNSUB_SIGNAL, shared);
  once.exchange(CMD_NONE, nullptr);  // answered after the notices were served
  once.send(shared, shared, MSG_SIG, 2);
  source.send(tick, tick, MSG_SIG, 3);
  EXPECT_EQ(3u, ntohl(next_message(twice.data).m_header->msg_id)) << "one of two subscriptions is left";
  twice.send(tick, shared, MSG_SIG, 4);
  EXPECT_EQ(4u, ntohl(next_message(source.data).m_header->msg_id)) << "a proxy's signal goes to the stub";
  EXPECT_TRUE(once.data.receive().empty());
}

TEST_F(kxcore, bounds_the_queue_of_a_component_that_does_not_read) {
  raw_component server("server");
  raw_component client("client");
  server.enter();
  client.enter();
  const int get = server.offer("get", 0);
  const int proxy = client.subscribe("get", false).at(0);
  unsigned int sent = 0;
  while (client.data.receive().empty()) {
    client.send(get, proxy, MSG_REQ, sent++);
    ASSERT_LT(sent, 1000u) << "the queue has no bound";
  }
  EXPECT_GE(sent, 128u);
  EXPECT_EQ(1, client.offer("own", 0) > 0) << "the others do not notice";
  for (unsigned int id = 0; id < 128; ++id)
    ASSERT_EQ(id, ntohl(next_message(server.data).m_header->msg_id));
  for (int refused = 0; !client.data.receive().empty();)
    ASSERT_LT(++refused, 1000);
}

TEST_F(kxcore, lets_a_hostile_component_get_nowhere) {
  raw_component server("server"), user("user"), hostile("hostile");
  for (raw_component* each : {&server, &user, &hostile})
    each->enter();
  const int get = server.offer("get", 0);
  const int proxy = user.subscribe("get", false).at(0);
  for (const std::string name : {"server", "user"})
    hostile.exchange(
        CMD_UNREG_COMPONENT, [&](KXmessage& m) { m << name; }, MSG_SIG);
  int own = 0, services = 0;
  for (int siid; (siid = hostile.offer("service " + std::to_string(services), 0)) > 0; own = siid)
    ++services;
  EXPECT_EQ(1024, services);
  std::string refusal;
  hostile.exchange(CMD_SUB_FUNCTION, [](KXmessage& m) { m << "get"; }) >> refusal;
  EXPECT_EQ("it holds 1024 services and subscriptions, which is the limit", refusal);
  for (int siid = 0; siid < 2000; ++siid) {
    for (const int src : {own, get, proxy, 1})
      hostile.send(siid, src, MSG_RSP, 77);
  }
  user.send(get, proxy, MSG_REQ, 78);
  for (unsigned int id = 0; id != 78;) {
    const KXmessage message = next_message(server.data);
    id = ntohl(message.m_header->msg_id);
    EXPECT_EQ(id == 78 ? proxy : own, static_cast<int>(ntohl(message.m_header->src_siid)));
  }
  server.send(proxy, get, MSG_RSP, 78);
  EXPECT_EQ(78u, ntohl(next_message(user.data).m_header->msg_id)) << "a response that is not the service's";
}

TEST_F(kxcore, serves_the_senders_of_a_full_queue_in_turn) {
  raw_component server("server"), flooder("flooder"), other("other");
  for (raw_component* each : {&server, &flooder, &other})
    each->enter();
  const int get = server.offer("get", 0);
  const int from_flooder = flooder.subscribe("get", false).at(0);
  const int from_other = other.subscribe("get", false).at(0);
  for (unsigned int id = 0; flooder.data.receive().empty(); ++id)
    flooder.send(get, from_flooder, MSG_REQ, id);
  flooder.exchange(CMD_NONE, nullptr);  // answered after the flood was served
  other.send(get, from_other, MSG_REQ, 7);
  other.exchange(CMD_NONE, nullptr);
  const auto next_is = [&](int siid) {
    return ntohl(next_message(server.data).m_header->src_siid) == static_cast<unsigned int>(siid);
  };
  while (!next_is(from_other))
    continue;
  for (int after = 0; after < 100; ++after)
    ASSERT_TRUE(next_is(from_flooder)) << "it waited for the end of the flood";
}

TEST_F(kxcore, forgets_a_component_that_dies_and_answers_what_it_did_not_read) {
  raw_component client("client");
  client.enter();
  std::atomic<int>* const siid = static_cast<std::atomic<int>*>(
      mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const auto serve = [siid] {
    raw_component server("server");
    server.enter();
    *siid = server.offer("get", 0);
    pause();
  };
  auto server = std::make_unique<child_process>(serve);
  while (*siid == 0)
    usleep(1000);
  const auto grant = client.subscribe("get", false);
  for (unsigned int id = 0; id < 20; ++id)
    client.send(grant.at(1), grant.at(0), MSG_REQ, id);
  client.exchange(CMD_NONE, nullptr);
  server->end(SIGKILL);
  const KXmessage failure = next_message(client.data);
  EXPECT_EQ(MSG_ERR, failure.m_header->msg_type);
  EXPECT_GT(ntohl(failure.m_header->msg_id), 9u)
      << "what the socket held is lost, what was queued is answered";
  EXPECT_TRUE(client.subscribe("get", false).empty()) << "the service is gone with its component";
  *siid = 0;
  server = std::make_unique<child_process>(serve);
  while (*siid == 0)
    usleep(1000);
  EXPECT_EQ(grant.at(1), *siid) << "a service that comes back has its siid again";
}

TEST_F(kxcore, drops_malformed_datagrams_of_every_length) {
  raw_component client("client");
  client.enter();
  std::vector<unsigned char> bytes;
  for (int length = 0; length <= 2049; ++length, bytes.push_back(static_cast<unsigned char>(length * 7))) {
    for (const raw_socket* from : {&client.mgmt, &client.data}) {
      send_patiently(*from, from == &client.mgmt ? fake_core::mgmt_path : fake_core::data_path, bytes);
    }
    while (!client.mgmt.receive().empty())
      continue;
  }
  EXPECT_EQ(MSG_RSP, client.enter().m_header->msg_type);
}

TEST_F(kxcore, runs_once_and_stops_in_order) {
  EXPECT_EQ(1, child_process(core_command()).end(0)) << "a second core refuses to start";
  raw_component client("client");
  client.enter();
  kill(m_core.pid(), SIGTERM);
  EXPECT_EQ(CMD_KILL_COMPONENT, next_message(client.mgmt).m_header->cmd);
  client.exchange(
      CMD_UNREG_COMPONENT, [](KXmessage& m) { m << "client"; }, MSG_SIG);
  EXPECT_EQ(0, m_core.end(0));
  EXPECT_NE(0, access(fake_core::mgmt_path, F_OK));
  EXPECT_NE(0, access(fake_core::data_path, F_OK));
}

// Interrupts this process's blocking calls ten thousand times in a second.
class signal_storm {
 public:
  signal_storm() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    const itimerspec often = {{0, 100'000}, {0, 100'000}};
    EXPECT_EQ(0,
              timer_create(CLOCK_MONOTONIC, &event, &m_timer) + timer_settime(m_timer, 0, &often, nullptr));
  }
  ~signal_storm() { timer_delete(m_timer); }

 private:
  timer_t m_timer;
};

TEST_F(kxcore, carries_calls_of_every_kind_between_processes_in_a_storm_of_harmless_signals) {
  child_process server([] {
    const signal_storm storm;
    KXclientComponent component("server");
    component.register_component();
    stub_probe get(&component);
    stub_probe tick(&component);
    get.on_message = [&](KXmessage& request) {
      int value = 0;
      request >> value;
      KXmessage response = make_message(ntohl(request.m_header->src_siid), 0, MSG_RSP, request.m_header->cmd,
                                        ntohl(request.m_header->msg_id));
      response << value + 1;
      get.connection_send(response);
      KXmessage signal = make_message(tick.m_siid, 0, MSG_SIG, 0, 0);
      signal << value;
      tick.connection_send(signal);
    };
    tick.register_signal("tick");
    get.register_synchronous("get");
    component.wait(true);
  });
  std::optional<signal_storm> storm(std::in_place);
  KXclientComponent component("client");
  component.register_component();
  proxy_probe sync(&component);
  proxy_probe async(&component);
  proxy_probe tick(&component);
  for (int tries = 0; sync.m_siid == no_siid && tries < patience_ms; ++tries) {
    try {
      sync.subscribe_synchronous("get");
    } catch (const KXerror::error_e&) {
      usleep(1000);
    }
  }
  tick.subscribe_signal("tick");
  async.subscribe_asynchronous("get", nullptr);
  const auto call = [](proxy_probe& proxy, int value) {
    KXmessage message;
    message << value;
    EXPECT_EQ(1, proxy.proxy_send(message));
    return message;
  };
  int ticks = 0;
  tick.on_message = [&](KXmessage& message) {
    EXPECT_EQ(ticks < 1000 ? 2 * ticks : 7, ints_of(message).at(0)) << "each once and in order";
    ++ticks;
    if (ticks == 1000) call(async, 7);
  };
  async.on_message = [&](KXmessage& response) {
    EXPECT_EQ(8, ints_of(response).at(0));
    component.sendKillMsgToSelf();
  };
  const auto make_calls = [&](int from) {
    for (int value = from; value < from + 1000; value += 2)
      ASSERT_EQ(value + 1, ints_of(call(sync, value)).at(0));
  };
  make_calls(0);
  std::thread beside_the_loop(make_calls, 1000);
  component.wait(true);
  beside_the_loop.join();
  EXPECT_GE(ticks, 1000);
  storm.reset();
  EXPECT_EQ(0, server.end(SIGTERM));
}

TEST_F(kxcore, a_component_takes_thousands_of_signals_and_stops_once) {
  child_process component([] {
    g_traceObject->level = 9;
    KXclientComponent storm("storm");
    const raw_socket has_handler("/tmp/kxcore/has_handler");
    const auto nothing = [](void*, int) { return 0; };
    const auto work = [&](int times) {  // logs and allocates all the time
      for (int i = 0; i < times; ++i)
        storm.add_msec_timer(0, &storm, nothing, i), storm.del_timer(&storm, nothing, i);
    };
    work(5000);
    storm.start(KXcomponent::CMP_START_AND_LOOP);
    work(5000);
  });
  ASSERT_TRUE(wait_until_bound(component, "/tmp/kxcore/has_handler"));
  std::vector<std::unique_ptr<child_process>> senders;
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
    senders.push_back(std::make_unique<child_process>([signal, target = component.pid()] {
      for (int i = 0; i < 2000; ++i)
        kill(target, signal), usleep(static_cast<useconds_t>(i % 503));
    }));
  }
  for (const auto& sender : senders)
    sender->end(0);
  siginfo_t ended = {};
  for (; ended.si_pid == 0; usleep(1000)) {  // it may not have begun its loop yet
    kill(component.pid(), SIGTERM);
#ifdef __SANITIZE_THREAD__  // its runtime may leave a thread that took signals with all of them blocked
    raw_socket("/tmp/kxcore/end")
        .send("/tmp/kxcore/storm", make_message(1, 1, MSG_SIG, CMD_KILL_COMPONENT, 0));
#endif
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(component.pid()), &ended, WEXITED | WNOWAIT | WNOHANG));
  }
  EXPECT_EQ(0, component.end(0));
  EXPECT_NE(0, access("/tmp/kxcore/storm", F_OK)) << "it stopped in order";
}
