#include "component_test.h"

class client_component : public core_test {
 protected:
  void answer_path(msg_type_e type, const char* path) {
    core.reply(type, [path](KXmessage& reply) { reply << path; });
  }
  void arrive(const std::string& socket, const std::string& bytes) { core.mgmt.send(socket, hex(bytes)); }
};

TEST_F(client_component, waits_for_the_core_and_counts_the_lines_that_it_writes) {
  fail(ACCESS, EACCES, 4);
  before(SLEEP, [] { trace_level(count(SLEEP) < 2 ? 5 : 6); });
  answer_path(MSG_RSP, "/d");
  component.register_component();
  EXPECT_EQ(104.5, now());
  EXPECT_EQ(3, times_logged("waiting for kxcore to start"));
  EXPECT_TRUE(logged("to start [3 sec] [/tmp/kxcore/kxcore]...\n"));
}

TEST_F(client_component, keeps_why_the_core_refused_until_the_next_request) {
  const auto subscribe = [this] {
    proxy_probe proxy(&component);
    ended([&] { return proxy.subscribe_synchronous("get"); });
    component.remove_connection(&proxy);
    return component.last_refusal();
  };
  core.reply(MSG_ERR, [](KXmessage& reply) { reply << "nobody offers 'get'"; });
  EXPECT_EQ("nobody offers 'get'", subscribe());
  core.reply(MSG_ERR, [](KXmessage& reply) { reply << 7; });
  clear_lines();
  EXPECT_EQ("", subscribe()) << "no text";
  EXPECT_EQ(0, times_logged("not enough data")) << "a line of its own";
  core.reply(MSG_ERR, [](KXmessage& reply) { reply << "why"; });
  EXPECT_EQ("why", subscribe());
  answer(MSG_RSP, {12, 40, 1000, 2000});
  EXPECT_EQ("", subscribe());
}

// The commands from CMD_NONE on are requests, notices, o(ffers) and s(ubscriptions); all but notices wait,
// without limit and without the lock.
TEST_F(client_component, addresses_each_command_and_stores_what_its_reply_grants) {
  const std::string commands = "rrnoonnssnnrr";
  before(SELECT, [this] {
    core.serve();
    EXPECT_TRUE(is_free(component.m_mutex));
  });
  for (unsigned char cmd = 0; cmd < commands.size(); ++cmd) {
    SCOPED_TRACE(int{cmd});
    const char kind = commands[cmd];
    const std::string granted = kind == 's'   ? "12 40 1000 2000 0"
                                : kind == 'o' ? "12 -1 0 0 0"
                                              : "-1 -1 0 0 0";
    proxy_probe subject(&component);
    core.reply(cmd % 2 == 0 ? MSG_RSP : MSG_REQ, [](KXmessage& reply) {  // neither type nor command matters
      for (const int value : {12, 40, 1000, 2000})
        reply << value;
      reply.m_header->cmd = CMD_NONE;
    });
    KXmessage message = make_message(7, 9, MSG_ERR, cmd, 5);
    message << true, message.pos = 2;
    EXPECT_TRUE(component.interconnect_service(&subject, message));
    core.serve();
    message = make_message(1, 1, kind == 'n' ? MSG_SIG : MSG_REQ, cmd, 5), message << true;
    EXPECT_EQ(bytes_of(message), bytes_of(core.received.back()));
    EXPECT_EQ(" -1 " + granted, subject.state());
    EXPECT_EQ(granted[0] == '1' ? 1u : 0u, component.m_siid_map.count(12));
    component.remove_connection(&subject);
    core.replies.clear();
  }
  EXPECT_EQ("-1 -1 -1 -1 -1 -1 -1 -1 ", given(SELECT));
}

TEST_F(client_component, takes_a_request_of_which_nothing_was_sent_for_sent_and_a_notice_not) {
  struct : client_probe {
    using client_probe::client_probe;
    int send_mgmt_message(KXmessage&) override { return 0; }
  } quiet("quiet");
  KXmessage notice = make_message(1, 1, MSG_NONE, CMD_UNREG_SIGNAL, 5);
  EXPECT_FALSE(quiet.interconnect_service(nullptr, notice));
  KXmessage request = make_message(1, 1, MSG_NONE, CMD_NONE, 5);
  arrive(quiet.m_mgmt_socket_name, "0 0 0 0 0 0 0 0 0 0 0 0 0 5");
  EXPECT_TRUE(quiet.interconnect_service(nullptr, request));
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
  std::string told;
  for (const log_line& line : lines())
    if (line.priority == LOG_WARNING) told += line.text.substr(line.text.find(" - "));
  for (const KXmessage& each : component.m_waiting_queue)
    told += hex(bytes_of(each));
  EXPECT_EQ(
      " - dropped a datagram of 13 bytes, shorter than a message header"
      " - Message added to waiting queue: id=0xb00 - Message added to waiting queue: id=0x1b07"
      " 00 00 00 01 00 00 00 01 03 0B 00 00 0B 00 00 00 00 01 00 00 00 01 03 0B 00 00 1B 07",
      told);
}

TEST_F(client_component, is_ended_by_kill_messages_only) {
  for (const auto& [bytes, ends] : {std::pair{"0 0 0 9 0 0 0 9 4 B 0 0 0 0", true},
                                    {"0 0 0 9 0 0 0 9 1 B 0 0 0 7", true},
                                    {"0 0 0 1 0 0 0 1 4 A 0 0 0 0", false},
                                    {"0 0 0 1 0 0 0 1 4 C 0 0 0 0", false},
                                    {"0 0 0 1 0 0 0 1 4 B 0 0 0", false},
                                    {"", false}}) {
    component.m_running = true;
    arrive(component.m_mgmt_socket_name, bytes);
    component.get_mgmt_message(-1);
    EXPECT_EQ(!ends, component.m_running) << bytes;
  }
  EXPECT_EQ(1, times_logged("(get_mgmt_message) - dropped a datagram of 13 bytes")) << "not the empty one";
  EXPECT_EQ(1, times_logged("dropped a datagram"));
  EXPECT_EQ("-1 -1 -1 -1 -1 -1 ", given(SELECT)) << "without limit";
}

TEST_F(client_component, hands_data_to_the_connections_of_its_siid_in_their_order_as_one_object) {
  struct {
    proxy_probe first;
    stub_probe second;
    proxy_probe third;
  } watchers = {proxy_probe(&component), stub_probe(&component), proxy_probe(&component)};
  std::string handled;
  const auto watch = [&](auto& watcher, int number) {
    watcher.m_interface_type = KXconnection::SGNL;
    component.bind_siid(watcher.m_siid = 9, &watcher);
    watcher.on_message = [&, number](KXmessage& each) {
      handled += std::to_string(number) + ":" + std::to_string(each.size) + " ";
      each << number;
      EXPECT_TRUE(is_free(component.m_mutex));
    };
  };
  watch(watchers.third, 3), watch(watchers.first, 1), watch(watchers.second, 2);
  before(SELECT, [this] { EXPECT_FALSE(is_free(component.m_mutex)); });
  before(RECVFROM, [this] { EXPECT_FALSE(is_free(component.m_mutex)); });
  using row = std::tuple<const char*, const char*, double>;
  for (const auto& [bytes, expected, end] :
       {row{"0 0 0 9 0 0 0 2 4 3 0 0 0 4", "1:0 2:5 3:10 ", 100.5},
        row{"0 0 0 8 0 0 0 2 4 3 0 0 0 4", "", 100.5}, row{"", "", 100.5},
        row{"0 0 0 9 0 0 0 2 4 3 0 0 0", "", 100.5}, row{"none", "", 110.5}}) {
    if (*bytes != 'n') arrive(component.m_data_socket_name, bytes);
    component.get_data_message(-1);
    EXPECT_EQ(expected, std::exchange(handled, "")) << bytes;
    EXPECT_EQ(end, now()) << bytes;
  }
  EXPECT_EQ(1, times_logged("(get_data_message) - dropped a datagram of 13 bytes")) << "not the empty one";
  component.stop();
}
