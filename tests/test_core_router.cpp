// Data messages: where they go, who may send what, and what is answered in place of whom.
#include "core_probe.h"

using messages = rooms;

TEST_F(messages, arrive_as_they_were_sent) {
  KXmessage message = make_message(unsigned(number("get")), unsigned(number("client.get")), MSG_REQ, 200, 77);
  message << "some text";
  serve_data(at("client"), message);
  EXPECT_EQ(bytes_of(message), at("server").data.receive());
}

TEST_F(messages, that_cannot_be_delivered_are_dropped_and_requests_are_answered) {
  play("other offers away; client uses away; other withdraws away; client hears tick; other uses get");
  for (const std::string row :
       {"get get=its source siid is not the sender's", "get -1=its source siid is not the sender's",
        "get other.get=its source siid is not the sender's", "999 client.get=no service has this siid",
        "other.get client.get=only its service reaches a proxy or subscribers",
        "client.tick client.tick=only its service reaches a proxy or subscribers",
        "away client.away=the service is not offered any more"}) {
    const std::string way = row.substr(0, row.find('=')), reason = row.substr(row.find('=') + 1);
    unsigned long& dropped = peers.at_mgmt("/tmp/kxcore/client")->of_its_own.dropped;
    dropped = 8;  // nothing is reported of the next
    for (const std::string type : {"SIG ", "RSP ", "ERR "})
      play("client " + type + way + " 5 > client; server >  server; other > other");
    EXPECT_EQ(11u, dropped) << row;
    dropped = 15;
    play("client SIG " + way + " 5");
    EXPECT_TRUE(seam::logged("dropped a message of client (16 so far): " + reason));
    play("client REQ " + way + " 5 > client = ERR 5 (" + reason + ")");
  }
}

TEST_F(messages, that_are_answered_by_the_core_bear_the_numbers_of_the_request) {
  const auto get = unsigned(number("get")), proxy = unsigned(number("client.get"));
  KXmessage expected = make_message(proxy, get, MSG_ERR, 200, 5);
  expected << "the component is gone";
  serve_data(at("client"), make_message(get, proxy, MSG_REQ, 200, 5));
  play("server leaves");
  EXPECT_EQ(hex(bytes_of(expected)), hex(at("client").data.receive()));
}

TEST_F(messages, of_who_is_not_registered_are_answered) {
  play(
      "stranger REQ get client.get 5 > stranger = ERR 5 (the sender is not registered); "
      "stranger SIG get client.get 5 > stranger; stranger RSP get client.get 5 > stranger; server > server");
  at("client").pid += 1;
  play("client REQ get client.get 6 > client = ERR 6 (another process has registered with this socket)");
  at("client").uid += 1;
  play("client REQ get client.get 6 > client");  // it could be taken for the component's
  EXPECT_TRUE(seam::logged("(5 so far): another process has registered with this socket"));
}

TEST_F(messages, of_any_type_reach_a_proxy_from_its_own_service_only) {
  play("other offers forger; client uses forger; other uses get");
  for (const std::string type : {"RSP", "ERR", "SIG"})
    play("other " + type + " client.get forger client.get# > client; server " + type +
         " client.get tick client.get# > client; server " + type +
         " client.get get client.forger# > client; server " + type +
         " client.get get client.get# > client = " + type + " client.get#; server " + type +
         " client.get get client.get#+4095 > client = " + type + " client.get#+4095; server " + type +
         " client.get get other.get# > client = " + type + " other.get#; server " + type +
         " client.get get 7 > client = " + type + " 7");
}

TEST_F(messages, of_any_type_close_the_request_of_a_proxy) {
  for (const std::string type : {"RSP", "ERR", "SIG"})
    play("client REQ get client.get 3 > server = REQ 3; server " + type + " client.get get 3 > client = " +
         type + " 3; server leaves; client > client; server registers; server offers get; client uses get");
}

TEST_F(messages, that_answer_reach_a_stub_once_for_a_request_of_its_own) {
  play(
      "client uses get; client.get as second; client RSP get client.get 5 > server; "
      "server REQ client.get get 5 > client = REQ 5; client RSP get client.get 6 > server; client uses get; "
      "client SIG get second 5 > server = SIG 5; client REQ get second 5 > server = REQ 5; "
      "client RSP get client.get 5 > server; client RSP get second 5 > server = RSP 5; "
      "client RSP get second 5 > server");
}

TEST_F(messages, with_an_id_of_the_receivers_could_be_taken_for_answers) {
  play(
      "other offers theirs; server uses theirs; client SIG get client.get server.theirs# > server; "
      "client SIG get client.get server.theirs#+4095 > server; "
      "client SIG get client.get server.theirs#+4096 > server = SIG server.theirs#+4096; "
      "client SIG get client.get client.get# > server = SIG client.get#; server uses get; "
      "server REQ get server.get server.get# > server = REQ server.get#; "
      "server RSP server.get get server.get# > server = RSP server.get#; client REQ get client.get "
      "server.get#");
  play("client > client = ERR " + std::to_string(number("server.get#")) +
       " (its message id is one of the receiver's own)");
}

TEST_F(messages, of_a_signal_go_once_to_each_subscribing_component) {
  play("client hears tick; client hears tick; other hears tick");
  for (const std::string to : {"tick", "client.tick"}) {
    play("server SIG " + to + " tick 1");
    const auto expected =
        make_message(unsigned(number("client.tick")), unsigned(number("tick")), MSG_SIG, 5, 1);
    EXPECT_EQ(hex(bytes_of(expected)), hex(at("client").data.receive()));
    play("other > other = SIG 1; client > client; server > server");
  }
  play(
      "client ignores client.tick; other ignores client.tick; server SIG tick tick 3 > client = SIG 3; "
      "other > other; client SIG tick client.tick 4 > server = SIG 4; server REQ tick tick 5 > server = REQ "
      "5; "
      "server SIG get get 6 > server = SIG 6; other SIG tick client.tick 7 > server");
}

TEST_F(messages, to_subscribers_have_no_id_of_theirs_unless_they_answer) {
  play(
      "client hears tick; other hears tick; server SIG tick tick client.tick# > client = SIG 0; "
      "other > other = SIG client.tick#; server REQ client.tick tick client.tick# > client = REQ "
      "client.tick#; "
      "other > other; server RSP client.tick tick client.tick# > client = RSP "
      "client.tick#; "
      "other > other; server ERR client.tick tick other.tick# > client; other > other = ERR other.tick#; "
      "server RSP client.tick tick client.get# > client; other > other = RSP client.get#");
}

TEST_F(messages, of_a_component_to_its_own_subscription_keep_their_ids) {
  play("server hears tick; server SIG tick tick server.tick# > server = SIG server.tick#");
}

TEST_F(messages, that_ask_are_answered_when_their_server_ends) {
  const struct {
    std::string act, reason;
  } rows[] = {{"server leaves", "the component is gone"},
              {"server registers", "the component is gone"},
              {"server withdraws get", "the service is withdrawn"}};
  for (const auto& row : rows)
    play(
        "server registers; server offers get; client uses get; client REQ get client.get 1 > server = REQ 1; "
        "client REQ get client.get 2 > server = REQ 2; client REQ get client.get 3 > server = REQ 3; "
        "client SIG get client.get 4 > server = SIG 4; server RSP client.get get 2 > client = RSP 2; " +
        row.act + "; client > client = ERR 1 (" + row.reason + "), ERR 3 (" + row.reason +
        "); server registers; client > client");
}

TEST_F(messages, that_ask_stay_open_when_another_component_ends) {
  play(
      "client REQ get client.get 5 > server = REQ 5; other leaves; client > client; server leaves; "
      "client > client = ERR 5 (the component is gone)");
}

TEST_F(messages, that_ask_a_socket_that_is_gone_are_answered_with_those_before) {
  play("client REQ get client.get 5 > server = REQ 5");
  seam::fail(seam::SEND, ECONNREFUSED);  // of the next to the server
  play("client REQ get client.get 6 > client = ERR 6 (the component is gone), ERR 5 (the component is gone)");
  EXPECT_FALSE(is_registered("server"));
}

TEST_F(messages, that_ask_all_subscribers_stay_open_when_one_ends) {
  play(
      "client hears tick; other hears tick; server REQ client.tick tick 5 > client = REQ 5; client leaves; "
      "server > server; other RSP tick other.tick 5 > server = RSP 5; other RSP tick other.tick 5 > server");
}

TEST_F(messages, of_a_subscriber_are_closed_by_the_answer) {
  play(
      "client hears tick; client REQ tick client.tick client.tick#; server RSP client.tick tick client.tick# "
      "> client = RSP client.tick#; server leaves; client > client");
}

TEST_F(messages, to_who_does_not_read_wait_are_answered_when_they_ask_and_are_counted) {
  constexpr int room = outlet::max_queued / 2 / (14 + outlet::cost_beside_bytes) + 1;
  block();
  for (int sent = 0; sent < 2000; ++sent)
    play("client SIG get client.get " + std::to_string(sent));
  play("client REQ get client.get 3000");
  EXPECT_TRUE(
      seam::logged("server does not read: its queue of 256 KiB is full for client (1024 lost so far)"));
  int expected = 0;
  for (unblock(); !seam::logged("server reads again"); unblock())
    for (KXmessage message; at("server").data.receive(message); ++expected)
      ASSERT_EQ(expected, static_cast<int>(ntohl(message.m_header->msg_id)));
  play("client > client = ERR 3000 (the component does not read, its queue is full)");
  EXPECT_TRUE(
      seam::logged("server reads again: " + std::to_string(2001 - room) + " messages to it were lost"));
  pollfd entry = {peers.fd(), POLLIN, 0};
  EXPECT_EQ(0, poll(&entry, 1, 0)) << "it still waits for room";
  at("server").arrived();
  block();
  play("client SIG get client.get 1; client uses x");
  unblock();
  play("server > server = SIG 1");
  EXPECT_EQ(1, seam::times_logged("server reads again")) << "what was lost is told twice";
  EXPECT_EQ("ERR 103 (nobody offers 'x')", raw_component::arrived(at("client").mgmt));
}

TEST_F(messages, that_a_component_did_not_even_take_are_answered_once_as_far_as_they_are_open) {
  block();
  for (int sent = 1; sent < 600; ++sent)
    play(std::string("client ") + (sent % 2 == 0 ? "SIG" : "REQ") + " get client.get " +
         std::to_string(sent));
  play("server uses x; server withdraws get; server leaves");
  EXPECT_TRUE(seam::logged("- 601 messages to server were not read"));
  unblock();
  constexpr int open = static_cast<int>(open_requests::max);
  int answered = 0;
  for (KXmessage answer; at("client").data.receive(answer); peers.serve(false), ++answered)
    ASSERT_EQ(599 - 2 * (open - 1 - answered), static_cast<int>(ntohl(answer.m_header->msg_id)));
  EXPECT_EQ(open, answered);
}

TEST_F(messages, that_were_refused_are_counted_when_the_component_ends_without_having_read) {
  block();
  for (int sent = 0; sent < 2000; ++sent)
    play("client SIG get client.get 1; server uses x");
  play("server leaves");
  EXPECT_TRUE(seam::logged("- 4000 messages to server were not read"));
}

TEST_F(messages, that_ask_all_subscribers_are_answered_when_none_takes_them) {
  play(
      "client hears tick; client ignores client.tick; other hears tick; other ignores other.tick; "
      "client hears tick; other hears tick");
  for (const int taken : {0, 1}) {
    play("client registers; client hears tick; other registers; other hears tick");
    seam::fail(seam::SEND, ECONNREFUSED, 1, taken);
    play("server REQ client.tick tick 6 > server");  // the other one has it
  }
  play(
      "server registers; server signals lone; client registers; client hears "
      "lone");
  seam::fail(seam::SEND, ECONNREFUSED);
  play("server REQ client.lone lone 7 > server = ERR 7 (the component is gone)");
}

TEST_F(messages, that_ask_the_subscriber_with_this_id_are_answered_when_it_is_gone) {
  play("client hears tick; other hears tick");
  seam::fail(seam::SEND, ECONNREFUSED);
  play("server REQ client.tick tick client.tick#; other > other");
  play("server > server = ERR " + std::to_string(number("client.tick#")) + " (the component is gone)");
}

TEST_F(messages, that_ask_a_proxy_are_answered_when_it_unsubscribes) {
  play(
      "server REQ client.get get 5 > client = REQ 5; client releases client.get; "
      "server > server = ERR 5 (the subscription has ended)");
}

TEST_F(messages, that_ask_a_proxy_are_answered_when_its_component_ends) {
  play(
      "server REQ client.get get 5 > client = REQ 5; client leaves; "
      "server > server = ERR 5 (the component is gone)");
}

TEST_F(messages, to_a_socket_that_goes_while_they_wait_are_its_end) {
  block();
  play("client SIG get client.get 1");
  seam::fail(seam::SEND, ECONNREFUSED);
  peers.serve(false), peers.forget_gone();
  EXPECT_FALSE(is_registered("server"));
}

TEST_F(messages, of_another_component_find_room_in_a_queue) {
  play("other uses get");
  block();
  for (int sent = 0; sent < 1000; ++sent)
    play("client SIG get client.get 1");
  const outlet& full = peers.at_mgmt("/tmp/kxcore/server")->data;
  const unsigned long lost = full.lost();
  play("other SIG get other.get 1");
  EXPECT_EQ(lost, full.lost());
  EXPECT_NE(0u, lost) << "the queue is not full";
}

TEST_F(messages, of_another_user_find_room_in_a_queue) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  raw_component& other = at("other");
  for (const raw_socket* const each : {&other.mgmt, &other.data})
    EXPECT_EQ(0, chown(each->path().c_str(), 1234, 0));
  play("other leaves");
  other.uid = 1234;
  play("other registers; other uses get");
  block();
  for (int sent = 0; sent < 1000; ++sent)
    play("client SIG get client.get 1");
  const outlet& full = peers.at_mgmt("/tmp/kxcore/server")->data;
  const unsigned long lost = full.lost();
  for (int sent = 0; sent < 600; ++sent)
    play("other SIG get other.get 1");
  EXPECT_EQ(lost, full.lost());
  EXPECT_NE(0u, lost) << "the queue is not full";
}

TEST_F(messages, that_could_not_be_sent_later_are_the_end_of_who_does_not_read) {
  block();
  seam::fail(seam::EPOLL_CTL, ENOSPC);
  play("client SIG get client.get 1");
  EXPECT_FALSE(is_registered("server"));
}

TEST_F(messages, are_not_sent_to_who_is_given_up) {
  peer& gone = *peers.at_mgmt("/tmp/kxcore/server");
  peers.give_up(gone, "x");
  EXPECT_EQ(outlet::GONE, peers.send(gone, gone.data, make_message(1, 1, MSG_SIG, 1, 1), nullptr));
  play("server > server");
}
