// Data messages: where they go, who may send what, and what is answered in place of whom.
#include <poll.h>

#include "core_probe.h"
#include "request.h"

using messages = rooms;

TEST_F(messages, arrive_as_they_were_sent) {
  KXmessage message = make_message((*this)["get"], (*this)["client.get"], MSG_REQ, 200, 77);
  message << "some text";
  serve_data(at("client"), message);
  EXPECT_EQ(bytes_of(message), at("server").data.receive());
}

TEST_F(messages, of_a_signal_bear_the_siid_of_its_subscribers) {
  play("client hears tick; server SIG tick tick 1");
  const KXmessage expected = make_message((*this)["client.tick"], (*this)["tick"], MSG_SIG, 5, 1);
  EXPECT_EQ(hex(bytes_of(expected)), hex(at("client").data.receive()));
}

TEST_F(messages, that_are_answered_by_the_core_bear_the_numbers_of_the_request) {
  const unsigned int get = (*this)["get"], proxy = (*this)["client.get"];
  KXmessage expected = make_message(proxy, get, MSG_ERR, 200, 5);
  expected << "the component is gone";
  serve_data(at("client"), make_message(get, proxy, MSG_REQ, 200, 5));
  play("server leaves");
  EXPECT_EQ(hex(bytes_of(expected)), hex(at("client").data.receive()));
}

TEST_F(messages, that_are_answered_by_the_core_without_memory_have_no_reason) {
  KXmessage answer;
  without_memory([&answer](int) {
    const std::string reason(200, 'x');
    EXPECT_NO_THROW(answer = failure_of({1, 2, 3, 4}, reason.c_str()));
    EXPECT_EQ(3u, ntohl(answer.m_header->msg_id));
  });
  EXPECT_GT(answer.size, 200);
}

static const scenes<messages> of_routes("messages", R"(
that cannot be delivered are dropped and requests are answered
  | get get                 | its source siid is not the sender's                  | 1
  | get -1                  | its source siid is not the sender's                  | 1
  | get other.get           | its source siid is not the sender's                  | 1
  | 999 client.get          | no service has this siid                             | 0
  | other.get client.get    | only its service reaches a proxy or subscribers      | 1
  | client.tick client.tick | only its service reaches a proxy or subscribers      | 1
  | away client.away        | the service is not offered any more                  | 0
  other offers away; client uses away; other withdraws away; client hears tick; other uses get
  client SIG $1 5 > client; client RSP $1 5 > client; client ERR $1 5 > client; > server; > other
  lines dropped a message of client (3 so far): $2 = 1
  client REQ $1 5 > client = ERR 5 ($2); lines dropped a message of client (4 so far): $2 = $3

of who is not registered are answered
  stranger REQ get client.get 5 > stranger = ERR 5 (the sender is not registered)
  stranger SIG get client.get 5 > stranger; stranger RSP get client.get 5 > stranger; > server
  client pid self+1
  client REQ get client.get 6 > client = ERR 6 (another process has registered with this socket)
  client uid own+1; client REQ get client.get 6 > client
  lines (5 so far): another process has registered with this socket = 1

reach a proxy from its own service only
  | RSP |
  | ERR |
  | SIG |
  other offers forger; client uses forger; other uses get
  other $1 client.get forger client.get# > client; server $1 client.get tick client.get# > client
  server $1 client.get get client.forger# > client
  server $1 client.get get client.get# > client = $1 client.get#
  server $1 client.get get client.get#+4095 > client = $1 client.get#+4095
  server $1 client.get get other.get# > client = $1 other.get#; server $1 client.get get 7 > client = $1 7

of any type close the request of a proxy
  | RSP |
  | ERR |
  | SIG |
  client REQ get client.get 3 > server = REQ 3; server $1 client.get get 3 > client = $1 3; server leaves
  > client

that answer reach a stub once for a request of its own
  client uses get; client.get as second; client RSP get client.get 5 > server
  server REQ client.get get 5 > client = REQ 5; client RSP get client.get 6 > server; client uses get
  client SIG get second 5 > server = SIG 5; client REQ get second 5 > server = REQ 5
  client RSP get client.get 5 > server; client RSP get second 5 > server = RSP 5
  client RSP get second 5 > server

with an id of the receivers could be taken for answers
  other offers theirs; server uses theirs; client SIG get client.get server.theirs# > server
  client SIG get client.get server.theirs#+4095 > server
  client SIG get client.get server.theirs#+4096 > server = SIG server.theirs#+4096
  client SIG get client.get client.get# > server = SIG client.get#; server uses get
  server REQ get server.get server.get# > server = REQ server.get#
  server RSP server.get get server.get# > server = RSP server.get#; client REQ get client.get server.get#
  > client = ERR server.get# (its message id is one of the receiver's own)

of a signal go once to each subscribing component
  client hears tick; client hears tick; other hears tick
  server SIG tick tick 1 > client = SIG 1; > other = SIG 1; > server
  server SIG client.tick tick 1 > client = SIG 1; > other = SIG 1
  client ignores client.tick; other ignores other.tick; server SIG tick tick 3 > client = SIG 3; > other
  client SIG tick client.tick 4 > server = SIG 4; server REQ tick tick 5 > server = REQ 5
  server SIG get get 6 > server = SIG 6; other SIG tick client.tick 7 > server

to subscribers have no id of theirs unless they answer
  client hears tick; other hears tick
  server SIG tick tick client.tick# > client = SIG 0; > other = SIG client.tick#
  server REQ client.tick tick client.tick# > client = REQ client.tick#; > other
  server RSP client.tick tick client.tick# > client = RSP client.tick#; > other
  server ERR client.tick tick other.tick# > client; > other = ERR other.tick#
  server RSP client.tick tick client.get# > client; > other = RSP client.get#

of a component to its own subscription keep their ids
  server hears tick; server SIG tick tick server.tick# > server = SIG server.tick#

that ask are answered when their server ends
  | server leaves        | the component is gone
  | server registers     | the component is gone
  | server withdraws get | the service is withdrawn
  client REQ get client.get 1 > server = REQ 1; client REQ get client.get 2 > server = REQ 2
  client REQ get client.get 3 > server = REQ 3; client SIG get client.get 4 > server = SIG 4
  server RSP client.get get 2 > client = RSP 2; $1; > client = ERR 1 ($2), ERR 3 ($2); server registers
  > client

that ask a proxy are answered when it ends
  | client releases client.get | the subscription has ended
  | client leaves              | the component is gone
  server REQ client.get get 5 > client = REQ 5; $1; > server = ERR 5 ($2)
  server REQ client.get get 6 > server = ERR 6 (no service has this siid)

that ask stay open when another component ends
  client REQ get client.get 5 > server = REQ 5; other leaves; > client
  server leaves; > client = ERR 5 (the component is gone)

that ask a socket that is gone are answered with those before
  client REQ get client.get 5 > server = REQ 5; SEND fails ECONNREFUSED
  client REQ get client.get 6 > client = ERR 6 (the component is gone), ERR 5 (the component is gone)
  client uses get = nobody offers 'get'

that ask all subscribers stay open when one of them ends
  | client leaves              |
  | client ignores client.tick |
  client hears tick; other hears tick; server REQ client.tick tick 5 > client = REQ 5; $1; > server
  other RSP tick other.tick 5 > server = RSP 5; other RSP tick other.tick 5 > server

of a subscriber are closed by the answer
  client hears tick; client REQ tick client.tick client.tick#
  server RSP client.tick tick client.tick# > client = RSP client.tick#; server leaves; > client

that ask all subscribers are answered when none takes them
  client hears tick; client ignores client.tick; other hears tick; other ignores other.tick
  client hears tick; other hears tick
  SEND fails ECONNREFUSED; server REQ client.tick tick 6 > server; client registers; client hears tick
  other registers; other hears tick; SEND fails ECONNREFUSED 1 1; server REQ client.tick tick 6 > server
  server signals lone; client registers; client hears lone; SEND fails ECONNREFUSED
  server REQ client.lone lone 7 > server = ERR 7 (the component is gone)

that ask the subscriber with this id are answered when it is gone
  client hears tick; other hears tick; SEND fails ECONNREFUSED; server REQ client.tick tick client.tick#
  > other
  > server = ERR client.tick# (the component is gone)

that were refused are counted when the component ends without having read
  SEND fails EAGAIN 9999; 2000 times client SIG get client.get 1; 2000 times server uses x; server leaves
  lines - 4000 messages to server were not read = 1

to a socket that goes while they wait are its end
  SEND fails EAGAIN; client SIG get client.get 1; SEND fails ECONNREFUSED; serve
  client uses get = nobody offers 'get'

that could not be sent later are the end of who does not read
  SEND fails EAGAIN; EPOLL_CTL fails ENOSPC; client SIG get client.get 1
  client uses get = nobody offers 'get'
)");

TEST_F(messages, to_who_does_not_read_wait_are_answered_when_they_ask_and_are_counted) {
  constexpr int room = outlet::max_queued / 2 / (14 + outlet::cost_beside_bytes) + 1;
  play("SEND fails EAGAIN 9999; 2000 times client SIG get client.get i; client REQ get client.get 3000");
  play(
      "lines server does not read: its queue of 256 KiB is full for client (1024 lost so far) = 1; SEND "
      "fails 0 0");
  int expected = 0;
  for (serve(); !seam::logged("server reads again"); serve())
    for (KXmessage message; at("server").data.receive(message); ++expected)
      ASSERT_EQ(expected, static_cast<int>(ntohl(message.m_header->msg_id)));
  play("> client = ERR 3000 (the component does not read, its queue is full)");
  EXPECT_TRUE(
      seam::logged("server reads again: " + std::to_string(2001 - room) + " messages to it were lost"));
  pollfd entry = {peers.fd(), POLLIN, 0};
  EXPECT_EQ(0, poll(&entry, 1, 0)) << "it still waits for room";
  raw_component::arrived(at("server").data);
  play(
      R"(SEND fails EAGAIN 9999; client SIG get client.get 1; client uses x; SEND fails 0 0; serve
      > server = SIG 1
          >> client = ERR 103 (nobody offers 'x'); lines server reads again = 1)");
}

TEST_F(messages, that_a_component_did_not_even_take_are_answered_once_as_far_as_they_are_open) {
  play("SEND fails EAGAIN 9999");
  for (int sent = 1; sent < 600; ++sent)
    play(std::string("client ") + (sent % 2 == 0 ? "SIG" : "REQ") + " get client.get " +
         std::to_string(sent));
  play(
      "server uses x; server withdraws get; server leaves; lines - 601 messages to server were not read = 1");
  play("SEND fails 0 0; serve");
  constexpr int open = static_cast<int>(open_requests::max);
  int answered = 0;
  for (KXmessage answer; at("client").data.receive(answer); serve(), ++answered)
    ASSERT_EQ(599 - 2 * (open - 1 - answered), static_cast<int>(ntohl(answer.m_header->msg_id)));
  EXPECT_EQ(open, answered);
}

TEST_F(messages, of_another_component_or_user_find_room_in_a_full_queue) {
  play("other uses get; SEND fails EAGAIN 9999; 2000 times client SIG get client.get 1");
  const outlet& full = registered("server")->data;
  const unsigned long lost = full.lost();
  EXPECT_NE(0u, lost) << "the queue is not full";
  play("other SIG get other.get 1");
  EXPECT_EQ(lost, full.lost());
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  give("third", 1234);
  play("SEND fails 0 0; third registers; third uses get; SEND fails EAGAIN 9999");
  play("600 times third SIG get third.get 1");
  EXPECT_EQ(lost, full.lost());
}

TEST_F(messages, are_not_sent_to_who_is_given_up) {
  peer& gone = *registered("server");
  for (const char* const name : {"server", "server", "client"})
    peers.give_up(*registered(name), "x");
  EXPECT_EQ(outlet::GONE, peers.send(gone, gone.data, make_message(1, 1, MSG_SIG, 1, 1), nullptr));
  play("> server");
  EXPECT_EQ(2u, peers.forget_gone());
}
