// Data messages: where they go, who may send what, and what is answered in place of whom.
#include "core_probe.h"

namespace {

class messages : public rooms {
 protected:
  // Registers it again as another component of the tests, which offers `service`; its siid.
  int serve_as(raw_component& who, const std::string& service) {
    EXPECT_EQ("", ask(who, CMD_REG_COMPONENT));
    return offer(who, service);
  }
  ints use(raw_component& who, mgmt_cmd_e cmd, const std::string& service) {
    return grant(who, cmd, service);
  }
};

}  // namespace

TEST_F(messages, arrive_as_they_were_sent) {
  KXmessage request = make_message(get, proxy, MSG_REQ, 200, id);
  request << "some text";
  serve_data(client, request);
  EXPECT_EQ(bytes_of(request), server.data.receive());
  KXmessage response = make_message(proxy, get, MSG_RSP, 200, id);
  serve_data(server, response);
  EXPECT_EQ(bytes_of(response), client.data.receive());
}

TEST_F(messages, that_cannot_be_delivered_are_dropped_and_requests_are_answered) {
  const int away = offer(other, "away"), left = use(client, CMD_SUB_FUNCTION, "away").at(0);
  const int shared = use(client, CMD_SUB_SIGNAL, "tick").at(0),
            foreign = use(other, CMD_SUB_FUNCTION, "get").at(0);
  notify(other, CMD_UNREG_FUNCTION, away);
  const struct {
    int dst, src;
    const char* reason;
  } rows[] = {{get, get, "its source siid is not the sender's"},
              {get, -1, "its source siid is not the sender's"},
              {get, 0, "its source siid is not the sender's"},
              {999, proxy, "no service has this siid"},
              {0, proxy, "no service has this siid"},
              {foreign, proxy, "only its service reaches a proxy or subscribers"},
              {proxy, proxy, "only its service reaches a proxy or subscribers"},
              {shared, shared, "only its service reaches a proxy or subscribers"},
              {shared, proxy, "only its service reaches a proxy or subscribers"},
              {away, left, "the service is not offered any more"}};
  for (const auto& row : rows) {
    for (const msg_type_e type : {MSG_REQ, MSG_SIG, MSG_RSP, MSG_ERR, MSG_NONE}) {
      const unsigned long dropped = peers.at_mgmt(client.mgmt.path())->of_its_own.dropped;
      serve_data(client, make_message(row.dst, row.src, type, 77, 5));
      EXPECT_EQ("", server.arrived() + other.arrived()) << row.dst << " " << row.src << " " << type;
      const KXmessage answer = client.data.receive_message();
      std::string reason;
      if (type != MSG_REQ) {
        EXPECT_EQ(MSG_NONE, answer.m_header->msg_type) << row.reason << type;
        EXPECT_EQ(dropped + 1, peers.at_mgmt(client.mgmt.path())->of_its_own.dropped) << row.reason << type;
        continue;
      }
      answer >> reason;
      EXPECT_EQ(row.reason, reason);
      KXmessage expected = make_message(row.src, row.dst, MSG_ERR, 77, 5);
      expected << row.reason;
      EXPECT_EQ(hex(bytes_of(expected)), hex(bytes_of(answer)));
    }
  }
}

TEST_F(messages, of_who_is_not_registered_are_answered) {
  raw_component stranger("stranger");
  EXPECT_EQ("ERR 5 (the sender is not registered)", pass(stranger, get, proxy, MSG_REQ, 5, stranger));
  client.pid += 1;
  EXPECT_EQ("ERR 6 (another process has registered with this socket)",
            pass(client, get, proxy, MSG_REQ, 6, client));
  client.uid += 1;
  EXPECT_EQ("", pass(client, get, proxy, MSG_REQ, 6, client)) << "it could be taken for the component's";
  for (const msg_type_e type : {MSG_SIG, MSG_RSP, MSG_ERR})
    EXPECT_EQ("", pass(stranger, get, proxy, type, 5, stranger)) << type;
  EXPECT_EQ("", server.arrived());
}

TEST_F(messages, that_answer_reach_a_proxy_from_its_own_service_only) {
  const int forger = offer(other, "forger");
  const int to_forger = use(client, CMD_SUB_FUNCTION, "forger").at(2);
  const int of_other = use(other, CMD_SUB_FUNCTION, "get").at(2);
  const struct {
    raw_component& from;
    int src, id;
    bool arrives;
  } rows[] = {{other, forger, id, false},      {server, get, id, true},         {server, get, id, true},
              {server, get, id + 4095, true},  {server, get, to_forger, false}, {server, get, of_other, true},
              {server, get, 0x7FFFFFFF, true}, {server, tick, id, false},       {server, get, 0, true}};
  for (const auto& row : rows)
    for (const msg_type_e type : {MSG_NONE, MSG_RSP, MSG_ERR, MSG_SIG})
      EXPECT_EQ(row.arrives, !pass(row.from, proxy, row.src, type, row.id, client).empty())
          << row.src << " " << row.id << " " << type;
}

TEST_F(messages, that_answer_reach_a_stub_once_for_a_request_of_its_own) {
  const auto answers = [this](int src, int answered) {
    return pass(client, get, src, MSG_RSP, answered, server);
  };
  const int second = use(client, CMD_SUB_FUNCTION, "get").at(0);
  EXPECT_EQ("", answers(proxy, 5)) << "nothing was asked";
  EXPECT_EQ("REQ 5", pass(server, proxy, get, MSG_REQ, 5, client));
  EXPECT_EQ("", answers(proxy, 6)) << "another request";
  EXPECT_EQ("", answers(second, 5)) << "another proxy";
  EXPECT_EQ("RSP 5", answers(proxy, 5));
  EXPECT_EQ("", answers(proxy, 5)) << "once more";
}

TEST_F(messages, with_an_id_of_the_receivers_could_be_taken_for_answers) {
  offer(other, "theirs");
  const ints granted = use(server, CMD_SUB_FUNCTION, "theirs");
  for (const int of_server : {granted.at(2), granted.at(3) - 1}) {
    EXPECT_EQ("", pass(client, get, proxy, MSG_SIG, of_server, server));
    const std::string refused =
        "ERR " + std::to_string(of_server) + " (its message id is one of the receiver's own)";
    EXPECT_EQ(refused, pass(client, get, proxy, MSG_REQ, of_server, client));
  }
  EXPECT_EQ("REQ " + std::to_string(granted.at(3)), pass(client, get, proxy, MSG_REQ, granted.at(3), server));
  EXPECT_EQ("SIG " + std::to_string(id), pass(client, get, proxy, MSG_SIG, id, server)) << "the sender's own";
  const ints own = use(server, CMD_SUB_FUNCTION, "get");
  EXPECT_EQ("REQ " + std::to_string(own.at(2)), pass(server, get, own.at(0), MSG_REQ, own.at(2), server))
      << "to itself";
  EXPECT_EQ("RSP " + std::to_string(own.at(2)), pass(server, own.at(0), get, MSG_RSP, own.at(2), server));
}

TEST_F(messages, of_a_signal_go_once_to_each_subscribing_component) {
  const int shared = use(client, CMD_SUB_SIGNAL, "tick").at(0);
  use(client, CMD_SUB_SIGNAL, "tick");
  use(other, CMD_SUB_SIGNAL, "tick");
  const auto expected = bytes_of(make_message(shared, tick, MSG_SIG, 5, 1));
  for (const int dst : {tick, shared}) {
    serve_data(server, make_message(dst, tick, MSG_SIG, 5, 1));
    EXPECT_EQ(hex(expected), hex(client.data.receive()));
    EXPECT_EQ("SIG 1", other.arrived());
    EXPECT_EQ("", client.arrived() + server.arrived()) << "more than once, or to its own stub";
  }
  for (raw_component* const each : {&client, &other})
    notify(*each, CMD_UNSUB_SIGNAL, shared);
  EXPECT_EQ("SIG 3", pass(server, tick, tick, MSG_SIG, 3, client)) << "one of two subscriptions is left";
  EXPECT_EQ("", other.arrived());
  EXPECT_EQ("SIG 4", pass(client, tick, shared, MSG_SIG, 4, server)) << "a subscriber's goes to the stub";
  EXPECT_EQ("REQ 5", pass(server, tick, tick, MSG_REQ, 5, server))
      << "what is no signal goes to the stub itself";
  EXPECT_EQ("SIG 6", pass(server, get, get, MSG_SIG, 6, server)) << "a function has no subscribers";
}

TEST_F(messages, to_subscribers_have_no_id_of_theirs_unless_they_answer) {
  const ints first = use(client, CMD_SUB_SIGNAL, "tick"), second = use(other, CMD_SUB_SIGNAL, "tick");
  const int shared = first.at(0), of_client = first.at(2);
  const std::string number = std::to_string(of_client);
  EXPECT_EQ("SIG 0", pass(server, tick, tick, MSG_SIG, of_client, client));
  EXPECT_EQ("SIG " + number, other.arrived());
  for (const msg_type_e type : {MSG_RSP, MSG_ERR, MSG_REQ}) {
    EXPECT_EQ(std::string(msg_type_name(type)) + " " + number,
              pass(server, shared, tick, type, of_client, client));
    EXPECT_EQ("", other.arrived()) << "an answer to a request of another";
  }
  const std::string of_proxy = std::to_string(id);
  EXPECT_EQ("RSP " + of_proxy, pass(server, shared, tick, MSG_RSP, id, other)) << "it is nobody's there";
  EXPECT_EQ("", client.arrived()) << "it is the id of another proxy there";
}

TEST_F(messages, that_ask_who_does_not_read_or_is_gone_are_answered) {
  block();
  for (int sent = 0; sent < 4000; ++sent)
    serve_data(client, make_message(get, proxy, MSG_REQ, 5, sent));
  const auto room = outlet::max_queued / 2 / (14 + outlet::cost_beside_bytes) + 1;
  const std::string refused =
      "ERR " + std::to_string(room) + " (the component does not read, its queue is full)";
  unblock();
  EXPECT_EQ(refused, client.arrived().substr(0, refused.size()));
  client.data.receive(), server.arrived();
  notify(server, CMD_UNREG_COMPONENT), notify(client, CMD_UNREG_COMPONENT);
  client.arrived();
  begin();
  seam::fail(seam::SEND, ECONNREFUSED);
  EXPECT_EQ("ERR 9 (the component is gone)", pass(client, get, proxy, MSG_REQ, 9, client));
  EXPECT_EQ(nullptr, peers.at_mgmt(server.mgmt.path()));
}

TEST_F(messages, that_ask_are_answered_when_their_server_ends) {
  const struct {
    const char* what;
    std::function<void()> act;
    const char* reason;
  } rows[] = {{"it unregisters", [this] { notify(server, CMD_UNREG_COMPONENT); }, "the component is gone"},
              {"it registers again", [this] { ask(server, CMD_REG_COMPONENT); }, "the component is gone"},
              {"it withdraws the service", [this] { notify(server, CMD_UNREG_FUNCTION, get); },
               "the service is withdrawn"},
              {"it is given up",
               [this] { peers.give_up(*peers.at_mgmt(server.mgmt.path()), "x"), peers.forget_gone(); },
               "the component is gone"}};
  for (const auto& row : rows) {
    get = serve_as(server, "get");
    proxy = use(client, CMD_SUB_FUNCTION, "get").at(0);
    for (int asked = 1; asked <= 3; ++asked)
      EXPECT_EQ("REQ " + std::to_string(asked), pass(client, get, proxy, MSG_REQ, asked, server));
    pass(client, get, proxy, MSG_SIG, 4, server);
    pass(server, proxy, get, MSG_RSP, 2, client);
    row.act();
    EXPECT_EQ("ERR 1 (" + std::string(row.reason) + "), ERR 3 (" + row.reason + ")", client.arrived())
        << row.what;
    notify(server, CMD_UNREG_COMPONENT);
    EXPECT_EQ("", client.arrived()) << row.what << ", and is answered again";
  }
}

TEST_F(messages, that_ask_are_answered_in_the_name_of_who_was_asked) {
  serve_data(client, make_message(get, proxy, MSG_REQ, 77, 5));
  notify(server, CMD_UNREG_COMPONENT);
  KXmessage expected = make_message(proxy, get, MSG_ERR, 77, 5);
  expected << "the component is gone";
  EXPECT_EQ(hex(bytes_of(expected)), hex(client.data.receive()));
}

TEST_F(messages, that_ask_all_subscribers_stay_open_when_one_ends) {
  const int shared = use(client, CMD_SUB_SIGNAL, "tick").at(0);
  use(other, CMD_SUB_SIGNAL, "tick");
  pass(server, shared, tick, MSG_REQ, 5, client);
  notify(client, CMD_UNREG_COMPONENT);
  EXPECT_EQ("", server.arrived());
  EXPECT_EQ("RSP 5", pass(other, tick, shared, MSG_RSP, 5, server));
  EXPECT_EQ("", pass(other, tick, shared, MSG_RSP, 5, server)) << "it is answered";
}

TEST_F(messages, of_a_subscriber_are_closed_by_the_answer) {
  const ints granted = use(client, CMD_SUB_SIGNAL, "tick");
  pass(client, tick, granted.at(0), MSG_REQ, granted.at(2), server);
  pass(server, granted.at(0), tick, MSG_RSP, granted.at(2), client);
  notify(server, CMD_UNREG_COMPONENT);
  EXPECT_EQ("", client.arrived());
}

TEST_F(messages, that_were_refused_are_not_open) {
  pass(client, get, proxy, MSG_REQ, 5, server);
  seam::fail(seam::SEND, ECONNREFUSED);  // of the next to the server
  EXPECT_EQ("ERR 6 (the component is gone), ERR 5 (the component is gone)",
            pass(client, get, proxy, MSG_REQ, 6, client));
}

TEST_F(messages, that_a_component_did_not_even_take_are_answered_once_as_far_as_they_are_open) {
  block();
  for (int sent = 1; sent < 600; ++sent)
    serve_data(client, make_message(get, proxy, sent % 2 == 0 ? MSG_SIG : MSG_REQ, 5, sent));
  ask(server, CMD_SUB_FUNCTION, "x");
  notify(server, CMD_UNREG_FUNCTION, get);
  notify(server, CMD_UNREG_COMPONENT);
  EXPECT_TRUE(seam::logged("- 600 messages to server were not read"));
  unblock();
  constexpr int open = static_cast<int>(open_requests::max);
  int answered = 0;
  for (KXmessage answer; client.data.receive(answer); peers.serve(false), ++answered)
    ASSERT_EQ(599 - 2 * (open - 1 - answered), static_cast<int>(ntohl(answer.m_header->msg_id)));
  EXPECT_EQ(open, answered);
}

TEST_F(messages, that_ask_all_subscribers_are_answered_when_none_takes_them) {
  EXPECT_EQ("SIG 4, ERR 5 (nobody subscribes to the signal)", [&] {
    const int shared = use(client, CMD_SUB_SIGNAL, "tick").at(0);
    notify(client, CMD_UNSUB_SIGNAL, shared);
    pass(server, get, get, MSG_SIG, 4, client);
    return pass(server, shared, tick, MSG_REQ, 5, server);
  }());
  const int shared = use(client, CMD_SUB_SIGNAL, "tick").at(0);
  use(other, CMD_SUB_SIGNAL, "tick");
  seam::fail(seam::SEND, ECONNREFUSED);
  EXPECT_EQ("", pass(server, shared, tick, MSG_REQ, 6, server)) << "the other one has it";
}

TEST_F(messages, that_ask_a_proxy_are_answered_when_it_unsubscribes) {
  pass(server, proxy, get, MSG_REQ, 5, client);
  notify(client, CMD_UNSUB_FUNCTION, proxy);
  EXPECT_EQ("ERR 5 (the subscription has ended)", server.arrived());
}

TEST_F(messages, to_who_reads_again_go_on_and_tell_what_was_lost) {
  block();
  for (int sent = 0; sent < 2000; ++sent)
    serve_data(other, make_message(0, 0, MSG_NONE, 5, sent)),
        serve_data(client, make_message(get, proxy, MSG_SIG, 5, sent));
  const int lost = 2000 - static_cast<int>(outlet::max_queued / 2 / (14 + outlet::cost_beside_bytes)) - 1;
  EXPECT_TRUE(
      seam::logged("server does not read: its queue of 256 KiB is full for client (1024 lost so far)"));
  int expected = 0;
  for (unblock(); !seam::logged("server reads again"); unblock()) {
    for (KXmessage message; server.data.receive(message); ++expected)
      ASSERT_EQ(expected, static_cast<int>(ntohl(message.m_header->msg_id)));
  }
  EXPECT_TRUE(seam::logged("server reads again: " + std::to_string(lost) + " messages to it were lost"));
  pollfd entry = {peers.fd(), POLLIN, 0};
  EXPECT_EQ(0, poll(&entry, 1, 0)) << "it still waits for room";
  server.arrived();
  block();
  pass(client, get, proxy, MSG_SIG, 1, server);
  unblock();
  EXPECT_EQ("SIG 1", server.arrived()) << "it does not wait for room a second time";
}

TEST_F(messages, to_management_wait_for_room_as_well) {
  block();
  ask(client, CMD_SUB_FUNCTION, "get");
  ask(client, CMD_SUB_FUNCTION, "x");
  unblock();
  EXPECT_EQ("RSP 103, ERR 104 (nobody offers 'x')", client.arrived(client.mgmt));
}

TEST_F(messages, are_not_sent_to_who_is_given_up) {
  peer& gone = *peers.at_mgmt(server.mgmt.path());
  peers.give_up(gone, "x");
  EXPECT_EQ(outlet::GONE, peers.send(gone, gone.data, make_message(1, 1, MSG_SIG, 1, 1), nullptr));
  EXPECT_EQ("", server.arrived());
  EXPECT_EQ(1u, peers.forget_gone());
  EXPECT_EQ(0u, peers.forget_gone());
}

TEST_F(rooms, lose_nothing_and_nobody_when_a_component_is_added_without_memory) {
  raw_component late("late with a name that takes memory");
  for (int fails_at = 1;; ++fails_at) {
    auto added =
        std::make_unique<peer>(late.name, sender{late.mgmt.path(), late.pid, late.uid}, late.data.path());
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    try {
      peers.add(std::move(added));
      break;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(nullptr, peers.at_data(late.data.path())) << fails_at;
      EXPECT_EQ(nullptr, peers.at_mgmt(late.mgmt.path())) << fails_at;
    }
  }
  seam::fail(seam::NEW, 0, 0);
  EXPECT_NE(nullptr, peers.at_mgmt(late.mgmt.path()));
}
