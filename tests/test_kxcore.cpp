// kxcore: the core in this process between components made of raw sockets, where the bytes are the point, and
// the program between real processes.
#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "child_process.h"
#include "core_probe.h"

namespace {

std::vector<int> ints_of(const KXmessage& message) {
  std::vector<int> values;
  for (int value; message.pos < message.size; values.push_back(value))
    message >> value;
  return values;
}

unsigned int id_of(const KXmessage& message) { return ntohl(message.m_header->msg_id); }
unsigned int source_of(const KXmessage& message) { return ntohl(message.m_header->src_siid); }

class core : public seam_test {
 protected:
  core() {
    for (raw_component* each : {&server, &client, &other})
      EXPECT_TRUE(asks(*each, CMD_REG_COMPONENT));
    get = grant(server, CMD_REG_FUNCTION, "get").at(0);
    tick = grant(server, CMD_REG_SIGNAL, "tick", KXconnection::SGNL).at(0);
    proxy = grant(client, CMD_SUB_FUNCTION, "get").at(0);
  }

  void manage(raw_component& from, mgmt_cmd_e cmd, int siid, msg_type_e type = MSG_SIG) {
    from.manage(cmd, "", siid, type);
    subject.serve();
  }

  // Makes a request; whether it is granted. The answer is then in `reply`.
  bool asks(raw_component& from, mgmt_cmd_e cmd, const std::string& service = "", int number = 0) {
    from.manage(cmd, service, number);
    subject.serve();
    reply = from.mgmt.receive_message();
    const auto type = static_cast<msg_type_e>(reply.m_header->msg_type);
    EXPECT_EQ(0, std::memcmp(make_message(1, 1, type, cmd, from.last_id).m_header, reply.m_header, 14));
    return type == MSG_RSP;
  }
  std::vector<int> grant(raw_component& from, mgmt_cmd_e cmd, const std::string& service, int number = 0) {
    return asks(from, cmd, service, number) ? ints_of(reply) : std::vector<int>{};
  }

  // Sends a message through the core; what comes out at `to`.
  KXmessage pass(raw_component& from, int dst, int src, msg_type_e type, unsigned int id,
                 const raw_component& to) {
    from.data.send(fake_core::data_path, make_message(dst, src, type, 5, id));
    subject.serve();
    return to.data.receive_message();
  }

  // Sends requests until one is refused; how many the receiver's socket took. As many as a sender may have
  // queued wait behind them.
  unsigned int fill() {
    unsigned int sent = 0;
    while (pass(client, get, proxy, MSG_REQ, sent, client).m_header->msg_type != MSG_ERR && sent < 9999)
      ++sent;
    return sent - queued;
  }

  static constexpr unsigned int queued = outlet::max_queued / 2 / (14 + outlet::cost_beside_bytes) + 1;
  core_probe subject;
  raw_component server{"server"}, client{"client"}, other{"other"};
  KXmessage reply;
  int get, tick, proxy;
};

}  // namespace

TEST_F(core, grants_disjoint_siids_and_message_ids) {
  std::string data_path;
  asks(other, CMD_REG_COMPONENT);
  reply >> data_path;
  EXPECT_EQ(fake_core::data_path, data_path);
  const auto first = grant(other, CMD_SUB_FUNCTION, "get"), second = grant(other, CMD_SUB_FUNCTION, "get"),
             signal = grant(other, CMD_SUB_SIGNAL, "tick"), again = grant(client, CMD_SUB_SIGNAL, "tick");
  EXPECT_TRUE(first.at(1) == get && signal.at(1) == tick);
  EXPECT_EQ(signal.at(0), again.at(0)) << "the subscribers of a signal share one siid";
  EXPECT_EQ(6u, (std::set<int>{get, tick, proxy, first.at(0), second.at(0), signal.at(0)}.size()));
  std::set<int> starts;
  for (const auto& grant : {first, second, signal, again}) {
    EXPECT_LT(grant.at(2), grant.at(3));
    for (const int start : starts)
      EXPECT_TRUE(grant.at(3) <= start || start + 4096 <= grant.at(2));
    starts.insert(grant.at(2));
  }
}

TEST_F(core, refuses_with_err_and_goes_on) {
  raw_component stranger("stranger");
  EXPECT_FALSE(asks(stranger, CMD_REG_FUNCTION, "new")) << "a sender that is not registered";
  EXPECT_FALSE(asks(other, CMD_REG_FUNCTION, "get", 1)) << "a name that is taken";
  EXPECT_FALSE(asks(server, CMD_REG_SIGNAL, "get", 2)) << "a name of one's own that is taken";
  EXPECT_FALSE(asks(other, CMD_REG_FUNCTION, "odd", 3)) << "an interface type that does not exist";
  EXPECT_FALSE(asks(other, CMD_SUB_FUNCTION, "absent"));
  EXPECT_FALSE(asks(other, CMD_SUB_SIGNAL, "get") || asks(other, CMD_SUB_FUNCTION, "tick"));
  for (const int cmd : {0, 5, 6, 9, 10, 11, 12, 255}) {
    EXPECT_FALSE(asks(other, static_cast<mgmt_cmd_e>(cmd), "", get)) << cmd;
    manage(other, static_cast<mgmt_cmd_e>(cmd), get);
  }
  EXPECT_EQ(4u, grant(other, CMD_SUB_FUNCTION, "get").size()) << "what another owns is not withdrawn";
}

TEST_F(core, routes_data_by_destination_and_checks_the_source) {
  pass(client, get, get, MSG_REQ, 50, server);  // as somebody else: dropped, with nothing to answer
  const KXmessage request = pass(client, get, proxy, MSG_REQ, 51, server);
  EXPECT_EQ(bytes_of(make_message(get, proxy, MSG_REQ, 5, 51)), bytes_of(request));
  EXPECT_EQ(51u, id_of(pass(server, proxy, get, MSG_RSP, 51, client)));
  EXPECT_EQ(MSG_NONE, pass(client, 99999, proxy, MSG_SIG, 52, client).m_header->msg_type);
  const KXmessage failure = pass(client, 99999, proxy, MSG_REQ, 53, client);
  EXPECT_EQ(0, std::memcmp(make_message(proxy, 99999, MSG_ERR, 5, 53).m_header, failure.m_header, 14));
}

TEST_F(core, sends_a_signal_once_to_each_subscribing_component) {
  const int shared = grant(client, CMD_SUB_SIGNAL, "tick").at(0);
  grant(client, CMD_SUB_SIGNAL, "tick");
  grant(other, CMD_SUB_SIGNAL, "tick");
  const auto expected = bytes_of(make_message(shared, tick, MSG_SIG, 5, 1));
  EXPECT_EQ(expected, bytes_of(pass(server, tick, tick, MSG_SIG, 1, client)));
  EXPECT_EQ(expected, other.data.receive());
  for (raw_component* each : {&client, &other})
    manage(*each, CMD_UNSUB_SIGNAL, shared);
  EXPECT_EQ(MSG_NONE, pass(other, shared, shared, MSG_SIG, 2, client).m_header->msg_type);
  EXPECT_EQ(3u, id_of(pass(server, tick, tick, MSG_SIG, 3, client))) << "one of two subscriptions is left";
  EXPECT_EQ(4u, id_of(pass(client, tick, shared, MSG_SIG, 4, server))) << "a proxy's goes to the stub";
  EXPECT_TRUE(other.data.receive().empty());
}

TEST_F(core, lets_a_hostile_component_get_nowhere) {
  for (const std::string name : {"server", "client"}) {
    other.name = name;
    manage(other, CMD_UNREG_COMPONENT, 0);
    manage(other, CMD_KILL_COMPONENT, 0);
  }
  int own = 0, services = 0;
  for (std::vector<int> siid; !(siid = grant(other, CMD_REG_FUNCTION, std::to_string(services))).empty();
       own = siid[0])
    ++services;
  EXPECT_EQ(1024, services);
  for (const mgmt_cmd_e cmd : {CMD_REG_FUNCTION, CMD_SUB_FUNCTION}) {
    std::string refusal;
    asks(other, cmd, cmd == CMD_REG_FUNCTION ? "more" : "get");
    reply >> refusal;
    EXPECT_EQ("it holds 1024 services and subscriptions, which is the limit", refusal);
  }
  for (int siid = 0; siid < 2000; ++siid) {
    for (const int src : {own, get, proxy, 1}) {
      const unsigned int source = source_of(pass(other, siid, src, MSG_RSP, 77, server));
      EXPECT_TRUE(source == 0 || source == static_cast<unsigned int>(own)) << source;
    }
  }
  EXPECT_TRUE(client.data.receive().empty()) << "a response that is not the service's";
  EXPECT_EQ(78u, id_of(pass(client, get, proxy, MSG_REQ, 78, server)));
}

TEST_F(core, bounds_the_queue_of_a_component_that_does_not_read_and_serves_its_senders_in_turn) {
  const unsigned int taken = fill();
  ASSERT_LT(taken, 800u) << "the queue has no bound";
  const int late = grant(other, CMD_SUB_FUNCTION, "get").at(0);
  EXPECT_EQ(0, pass(other, get, late, MSG_REQ, 7, other).size) << "it was refused";
  unsigned int ahead = 0;
  for (unsigned int received = 0; received < taken + queued; subject.serve()) {
    const KXmessage message = server.data.receive_message();
    if (source_of(message) == static_cast<unsigned int>(late)) {
      ahead = received;
    } else {
      ASSERT_EQ(received++, id_of(message)) << "lost, or out of order";
    }
  }
  EXPECT_TRUE(taken <= ahead && ahead < taken + 3) << "it waited for the end of the flood: " << ahead;
}

TEST_F(core, bounds_the_queue_of_a_component_against_senders_that_come_again_and_again) {
  fill();
  for (unsigned int id = 0, refused = 0; refused == 0; ++id) {
    ASSERT_LT(id, 9999u);
    asks(other, CMD_REG_COMPONENT);
    proxy = grant(other, CMD_SUB_FUNCTION, "get").at(0);
    refused = id_of(pass(other, get, proxy, MSG_REQ, id, other));
  }
}

TEST_F(core, forgets_a_component_that_dies_and_answers_what_it_did_not_read) {
  const int before = get;
  std::optional<raw_component> mortal("mortal");
  const auto live = [&] {
    mortal.emplace("mortal");
    asks(*mortal, CMD_REG_COMPONENT);
    get = grant(*mortal, CMD_REG_FUNCTION, "mortal get").at(0);
  };
  live();
  EXPECT_NE(before, get);
  proxy = grant(client, CMD_SUB_FUNCTION, "mortal get").at(0);
  const unsigned int taken = fill();
  mortal.reset();
  const KXmessage failure = pass(client, get, proxy, MSG_SIG, 20, client);
  EXPECT_EQ(MSG_ERR, failure.m_header->msg_type);
  EXPECT_EQ(taken, id_of(failure)) << "what the socket held is lost, what was queued is answered";
  EXPECT_FALSE(asks(client, CMD_SUB_FUNCTION, "mortal get")) << "the service is gone with its component";
  const int siid = get;
  live();
  EXPECT_EQ(siid, get) << "a service that comes back has its siid again";
}

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

class kxcore : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(wait_until_bound(program, fake_core::data_path)); }
  void TearDown() override {
    if (!program.has_ended()) program.end(SIGKILL);
  }

  child_process program{core_command()};
};

}  // namespace

TEST_F(kxcore, runs_once_notices_deaths_and_stops_in_order) {
  EXPECT_EQ(1, child_process(core_command()).end(0)) << "a second core refuses to start";
  KXclientComponent client("client");
  client.register_component();
  proxy_probe proxy(&client);
  child_process server([] {
    KXclientComponent component("server");
    component.register_component();
    KXstub(&component).register_synchronous("get");
    pause();
  });
  const auto is_offered = [&] {
    try {
      return proxy.subscribe_synchronous("get") == 1;
    } catch (const KXerror::error_e&) {
      return usleep(1000) == 1;
    }
  };
  for (int tries = 0; !is_offered(); ++tries)
    ASSERT_LT(tries, patience_ms);
  server.end(SIGKILL);
  for (int tries = 0; is_offered(); ++tries)
    ASSERT_LT(tries, patience_ms);
  kill(program.pid(), SIGTERM);
  client.wait(true);
  EXPECT_EQ(0, program.end(0));
  EXPECT_TRUE(access(fake_core::mgmt_path, F_OK) != 0 && access(fake_core::data_path, F_OK) != 0);
}

TEST_F(kxcore, carries_the_bytes_that_the_page_of_the_wire_format_shows) {
  std::ifstream file(WIRE_FORMAT_PAGE);
  const std::string page{std::istreambuf_iterator<char>(file), {}};
  for (const char* const name : {"guide-values", "guide-exchange"}) {
    std::string command = KXCORE_COMMAND;
    command.replace(command.rfind("kxcore"), std::string::npos, name);
    std::replace(command.begin(), command.end(), '|', ' ');
    FILE* const output = popen(command.c_str(), "r");
    std::string printed = "```\n";
    for (char line[128]; fgets(line, sizeof line, output) != nullptr;)
      printed += line;
    EXPECT_EQ(0, pclose(output)) << name;
    EXPECT_NE(std::string::npos, page.find(printed + "```")) << name << " prints\n" << printed;
  }
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
