#include <unistd.h>

#include <fstream>
#include <thread>

#include "probe.h"

using namespace seam;

class client_component : public core_test {
 protected:
  void answer_path(msg_type_e type, const char* path) {
    core.reply(type, [path](KXmessage& reply) { reply << path; });
  }
  void arrive(const std::string& socket, const std::string& bytes) { core.mgmt.send(socket, hex(bytes)); }
};

TEST_F(client_component, waits_for_the_core_and_counts_the_lines_that_it_writes) {
  rename("/tmp/kxcore/kxcore", "/tmp/kxcore/absent");
  fail(ACCESS, EACCES);
  before(SLEEP, [] {
    trace_level(count(SLEEP) < 2 ? 5 : 6);
    if (count(SLEEP) == 4) rename("/tmp/kxcore/absent", "/tmp/kxcore/kxcore");
  });
  answer_path(MSG_RSP, "/d");
  component.register_component();
  EXPECT_EQ(104.5, now());
  EXPECT_TRUE(logged("to start [1 sec] [/tmp/kxcore/kxcore]...\n"));
  EXPECT_TRUE(logged("to start [2 sec] [/tmp/kxcore/kxcore]...\n"));
  EXPECT_FALSE(logged("to start [4 sec]"));
}

TEST_F(client_component, registers_in_its_sub_directory_and_withdraws) {
  const KXcomponent::ExtraCfg cfg = {"sub", false};
  client_probe below("c", &cfg);
  EXPECT_EQ("/tmp/kxcore/sub/c", below.m_mgmt_socket_name);
  answer_path(MSG_RSP, "/d");
  below.register_component();
  EXPECT_EQ("/d", below.m_kxcore_data_socket_name);
  below.unregister_component();
  fail(SENDTO, EAGAIN, 3);
  below.unregister_component();
  EXPECT_EQ(1, times_logged("unregistered component [c]\n")) << "the second notice was not sent";
  EXPECT_EQ("/d", below.m_kxcore_data_socket_name);
  core.serve();
  EXPECT_EQ(0x11111111u, ntohl(core.received.at(0).m_header->msg_id));
  EXPECT_EQ(0x22222222u, ntohl(core.received.at(1).m_header->msg_id));
}

TEST_F(client_component, reports_a_failed_registration_and_an_empty_path) {
  component.m_kxcore_data_socket_name = "/old";
  fail(SENDTO, EAGAIN, 3);
  component.register_component();
  EXPECT_TRUE(logged("Failed to register component [c]"));
  answer_path(MSG_ERR, "/new");
  EXPECT_THROW(component.register_component(), KXerror::error_e);
  EXPECT_EQ("/old", component.m_kxcore_data_socket_name);
  EXPECT_FALSE(logged("registered component [c]\n"));
  answer_path(MSG_RSP, "");
  component.register_component();
  EXPECT_EQ("", component.m_kxcore_data_socket_name);
  EXPECT_TRUE(logged("registered component [c]\n"));
  std::string reported;
  for (const failed_assertion& each : failed_assertions())
    reported.append(each.expression).append(" in ").append(each.path).append(each.function) += "\n";
  const std::string place =
      " in components/kestrix/kxlib/KXclientComponentvirtual void "
      "KXclientComponent::register_component()\n";
  EXPECT_EQ("false" + place + "m_kxcore_data_socket_name != \"\"" + place, reported);
}

// The commands from CMD_NONE on are requests, notices, o(ffers) and s(ubscriptions); all but notices wait.
TEST_F(client_component, addresses_each_command_and_stores_what_its_reply_grants) {
  const std::string commands = "rrnoonnssnnrr";
  for (unsigned char cmd = 0; cmd < commands.size(); ++cmd) {
    SCOPED_TRACE(int{cmd});
    const char kind = commands[cmd];
    proxy_probe subject(&component);
    const auto grant = [](KXmessage& reply) {
      for (const int value : {12, 40, 1000, 2000})
        reply << value;
      reply.m_header->cmd = CMD_NONE;  // it does not matter
    };
    if (kind != 'n') core.reply(cmd % 2 == 0 ? MSG_RSP : MSG_REQ, grant);
    KXmessage message = make_message(7, 9, MSG_ERR, cmd, 5);
    message << true, message.pos = 2;
    const int waits = count(SELECT);
    EXPECT_TRUE(component.interconnect_service(&subject, message));
    EXPECT_EQ(kind == 'n' ? 0 : 1, count(SELECT) - waits);
    const std::string head = " 00 00 00 01 00 00 00 01 ";
    EXPECT_EQ(head + (kind == 'n' ? "04" : "01") + hex(std::vector{cmd}) + " 09 01", asked());
    EXPECT_EQ(kind == 's'   ? " -1 12 40 1000 2000 0"
              : kind == 'o' ? " -1 12 -1 0 0 0"
                            : " -1 -1 -1 0 0 0",
              subject.state());
    EXPECT_EQ(kind == 's' || kind == 'o' ? 1u : 0u, component.m_siid_map.count(12));
    component.remove_connection(&subject);
  }
}

TEST_F(client_component, goes_on_to_wait_with_a_request_of_which_nothing_was_sent) {
  struct : client_probe {
    using client_probe::client_probe;
    int send_mgmt_message(KXmessage&) override { return sent; }
    int sent = 0;
  } quiet("quiet");
  using row = std::tuple<mgmt_cmd_e, int, int, bool>;
  for (const auto& [cmd, sent, waits, result] :
       {row{CMD_UNREG_SIGNAL, 1, 0, true}, row{CMD_UNREG_SIGNAL, 0, 0, false},
        row{CMD_UNREG_SIGNAL, -1, 0, false}, row{CMD_NONE, -1, 0, false}, row{CMD_NONE, 0, 1, true}}) {
    SCOPED_TRACE(std::to_string(cmd) + ", " + std::to_string(sent));
    KXmessage message = make_message(1, 1, MSG_NONE, cmd, 5);
    quiet.sent = sent;
    if (waits == 1) arrive(quiet.m_mgmt_socket_name, "0 0 0 0 0 0 0 0 0 0 0 0 0 5");
    EXPECT_EQ(result, quiet.interconnect_service(nullptr, message));
    EXPECT_EQ(waits, count(SELECT));
  }
}

// The reply is sent when the thread sleeps, which it does in a wait without limit only.
TEST_F(client_component, waits_for_a_reply_without_limit_and_without_a_lock) {
  std::thread late;
  before(SELECT, nullptr);
  when_idle([&] {
    EXPECT_TRUE(is_free(component.m_mutex));
    late = std::thread([this, waiting = gettid()] {
      for (std::string state; state != "S";)
        std::ifstream("/proc/self/task/" + std::to_string(waiting) + "/stat") >> state >> state >> state;
      arrive(component.m_mgmt_socket_name, "0 0 0 1 0 0 0 1 2 B 0 0 0 5");
    });
  });
  KXmessage message = make_message(1, 1, MSG_NONE, CMD_KILL_COMPONENT, 5);
  EXPECT_TRUE(component.interconnect_service(nullptr, message));
  late.join();
}

TEST_F(client_component, sets_aside_whole_messages_that_are_not_its_reply) {
  for (const std::string id : {"0 0 0", "0 0 B 0", "0 0 1B 7"})
    arrive(component.m_mgmt_socket_name, "0 0 0 1 0 0 0 1 3 B " + id);
  answer(MSG_SIG);
  KXmessage message = make_message(1, 1, MSG_NONE, CMD_KILL_COMPONENT, 5);
  component.m_running = true;
  EXPECT_TRUE(component.interconnect_service(nullptr, message));
  EXPECT_EQ(hex("0 0 0 1 0 0 0 1 4 B 0 0 0 5"), bytes_of(message));
  EXPECT_TRUE(component.m_running);
  arrive(component.m_mgmt_socket_name, "");
  EXPECT_FALSE(component.interconnect_service(nullptr, message)) << "an empty datagram came";
  std::string warnings, queue;
  for (const log_line& line : lines())
    if (line.priority == LOG_WARNING) warnings += line.text.substr(line.text.find(" ("));
  const std::string place = " (interconnect_service) - ",
                    added = place + "Message added to waiting queue: id=0x";
  EXPECT_EQ(place + "dropped a datagram of 13 bytes, shorter than a message header" + added + "b00" + added +
                "1b07",
            warnings);
  for (const KXmessage& each : component.m_waiting_queue)
    queue += hex(bytes_of(each));
  EXPECT_EQ(" 00 00 00 01 00 00 00 01 03 0B 00 00 0B 00 00 00 00 01 00 00 00 01 03 0B 00 00 1B 07", queue);
}

TEST_F(client_component, stores_nothing_of_a_refusal_and_the_siid_alone_when_it_is_taken) {
  proxy_probe first(&component), second(&component);
  component.bind_siid(12, &first);
  using row = std::tuple<msg_type_e, std::vector<int>, int, const char*>;
  for (const auto& [type, grant, result, state] :
       {row{MSG_ERR, {12, 40, 1000, 2000}, 10 * KXerror::ERR_ERROR_REPLY, "s 0 -1 -1 0 0 0"},
        row{MSG_RSP, {12, 40, 1000, 2000}, 10 * KXerror::ERR_SIID_PRESENT, "s 0 12 -1 0 0 0"},
        row{MSG_RSP, {13, 40}, 1, "s 0 13 40 -1 -1 -1"}}) {
    answer(type, grant);
    int ended = 0;
    try {
      ended = second.subscribe_synchronous("s");
    } catch (KXerror::error_e error) {
      ended = 10 * error;
    }
    EXPECT_EQ(result, ended);
    EXPECT_EQ(state, second.state());
  }
  component.stop();
}

TEST_F(client_component, is_ended_by_kill_messages_only) {
  trace_level(6);
  using row = std::tuple<const char*, bool, const char*>;
  for (const auto& [bytes, ends, line] :
       {row{"0 0 0 9 0 0 0 9 4 B 0 0 0 0", true, "process need to close down..\n"},
        row{"0 0 0 9 0 0 0 9 1 B 0 0 0 7", true, "process need to close down..\n"},
        row{"0 0 0 1 0 0 0 1 4 A 0 0 0 0", false, ""}, row{"0 0 0 1 0 0 0 1 4 C 0 0 0 0", false, ""},
        row{"0 0 0 1 0 0 0 1 4 B 0 0 0", false, "(get_mgmt_message) - dropped a datagram of 13 bytes"},
        row{"", false, ""}}) {
    SCOPED_TRACE(bytes);
    clear_lines();
    component.m_running = true;
    arrive(component.m_mgmt_socket_name, bytes);
    component.get_mgmt_message(-1);
    EXPECT_EQ(!ends, component.m_running);
    EXPECT_EQ(1, times_logged(line)) << "beside the first line none";
  }
}

TEST_F(client_component, hands_data_to_the_connections_of_its_siid_in_their_order_as_one_object) {
  proxy_probe watchers[3] = {proxy_probe(&component), proxy_probe(&component), proxy_probe(&component)};
  std::string handled;
  for (const int i : {2, 0, 1}) {
    watchers[i].m_interface_type = KXconnection::SGNL;
    component.bind_siid(watchers[i].m_siid = 9, &watchers[i]);
    watchers[i].on_message = [&, i](KXmessage& each) {
      handled +=
          std::to_string(i) + ":" + std::to_string(each.size) + (is_free(component.m_mutex) ? " " : "!");
      each << i;
    };
  }
  before(SELECT, [this] { EXPECT_FALSE(is_free(component.m_mutex)); });
  trace_level(6);
  using row = std::tuple<const char*, const char*, const char*, double>;
  for (const auto& [bytes, expected, line, end] :
       {row{"0 0 0 9 0 0 0 2 4 3 0 0 0 4", "0:0 1:5 2:10 ", "", 100.5},
        row{"0 0 0 8 0 0 0 2 4 3 0 0 0 4", "", "", 100.5}, row{"", "", "", 100.5},
        row{"0 0 0 9 0 0 0 2 4 3 0 0 0", "", "(get_data_message) - dropped a datagram of 13 bytes", 100.5},
        row{"none", "", "Receive message timeout", 110.5}}) {
    SCOPED_TRACE(bytes);
    handled.clear(), clear_lines();
    if (*bytes != 'n') arrive(component.m_data_socket_name, bytes);
    component.get_data_message(-1);
    EXPECT_EQ(expected, handled);
    EXPECT_EQ(*line != '\0', times_logged(line));
    EXPECT_EQ(end, now());
  }
  component.stop();
}
