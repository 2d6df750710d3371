// Stubs and proxies beside a core.
#include "component_test.h"

class connections : public core_test {
 protected:
  static constexpr auto SYNC = KXconnection::SYNC, ASYNC = KXconnection::ASYNC, SGNL = KXconnection::SGNL;

  // A step that a connection takes, to which the core answers "refused" or numbers, unless it is "unsent";
  // and what it comes to: its result, the state of the connection, the siids with connections, and the
  // commands that the core was asked.
  struct step {
    std::function<int()> take;
    std::string answered;
    std::string outcome;
  };
  template <typename Connection>
  void expect(const Connection& subject, const std::vector<step>& steps) {
    for (const step& each : steps) {
      fail(SENDTO, EAGAIN, each.answered == "unsent" ? 3 : 0);
      answer(each.answered == "refused" ? MSG_ERR : MSG_RSP, ints_of(each.answered));
      std::string outcome = ended(each.take) + " | ";
      outcome += subject.state() + " |";
      for (const auto& [siid, bound] : component.m_siid_map)
        outcome += " " + std::to_string(siid);
      EXPECT_EQ(each.outcome, outcome + " |" + commands()) << "step " << &each - &steps[0];
      core.replies.clear();
    }
  }

  static ints ints_of(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<int>(words), {}};
  }

  void subscribe() {
    answer(MSG_RSP, {12, 40, 1000, 1003});
    EXPECT_EQ(1, proxy.subscribe_synchronous("get"));
  }

  proxy_probe proxy{&component};
  stub_probe stub{&component};
  KXmessage message = make_message(7, 9, MSG_ERR, 42, 5);
};

TEST_F(connections, proxies_are_what_they_were_asked_for_last_and_have_what_the_core_granted) {
  struct : KXproxyReplyInterface {
    void process_reply(KXmessage&) override {}
  } reply;
  const auto send = [&] { return proxy.proxy_send(message); };
  const auto leave = [&] { return proxy.disconnect(true), 0; };
  const auto sync = [&] { return proxy.subscribe_synchronous("get"); };
  const auto async = [&] { return proxy.subscribe_asynchronous("get", &reply); };
  const auto signal = [&] { return proxy.subscribe_signal("other"); };
  expect(proxy, {{leave, "", "0 |  -1 -1 -1 0 0 0 | |"},
                 {send, "", "0 |  -1 -1 -1 0 0 0 | |"},
                 {async, "unsent", "0 | get 1 -1 -1 0 0 0 reply | |"},
                 {signal, "unsent", "0 | other 2 -1 -1 0 0 0 | |"},
                 {send, "", "1 | other 2 -1 -1 0 0 1 | |"},
                 {leave, "", "0 | other -1 -1 -1 0 0 1 | |"},
                 {signal, "refused", "error 3 | other 2 -1 -1 0 0 1 | | 8"},
                 {async, "12 40 1000 1003", "1 | get 1 12 40 1000 1003 1000 reply | 12 | 7"},
                 {send, "", "1 | get 1 12 40 1000 1003 1001 reply | 12 |"},
                 {send, "", "1 | get 1 12 40 1000 1003 1002 reply | 12 |"},
                 {send, "", "1 | get 1 12 40 1000 1003 1000 reply | 12 |"},
                 {signal, "refused", "error 3 | other 2 12 40 1000 1003 1000 | 12 | 8"},
                 {sync, "12 40", "error 1 | get 0 12 40 1000 1003 1000 | 12 | 7"},
                 {leave, "", "0 | get -1 12 40 1000 1003 1000 | | 9"},
                 {leave, "", "0 | get -1 12 40 1000 1003 1000 | |"},
                 {send, "", "0 | get -1 12 40 1000 1003 1000 | |"},
                 {sync, "13", "1 | get 0 13 -1 -1 -1 -1 | 13 | 7"}});
  EXPECT_EQ(bytes_of(make_message(40, 12, MSG_REQ, 42, 1000)), bytes_of(message)) << "sent last";
  component.bind_siid(stub.m_siid = 14, &stub);
  expect(proxy, {{sync, "14 41 5 6", "error 1 | get 0 14 -1 -1 -1 -1 | 13 14 | 7"},
                 {signal, "15 41 5 6", "1 | other 2 15 41 5 6 5 | 13 14 15 | 8"},
                 {send, "", "1 | other 2 15 41 5 6 5 | 13 14 15 |"}});
  EXPECT_EQ(bytes_of(make_message(41, 15, MSG_SIG, 42, 5)), bytes_of(message)) << "sent last";
  EXPECT_EQ(std::pair(10u, 3u), std::pair(proxy.m_timeout, proxy_probe(&component, 3).m_timeout));
}

TEST_F(connections, proxies_are_disconnected_even_when_they_cannot_withdraw) {
  for (const auto kind : {SYNC, ASYNC, SGNL}) {
    const std::string is = "get " + std::to_string(kind) + " 12 40 1 9 1 | 12 |",
                      was = "0 | get -1 12 40 1 9 1 |", withdrawn = kind == SGNL ? " 10" : " 9";
    const auto subscribed = [&] { return proxy.subscribe_service("get", kind, nullptr); };
    const auto leave = [&] { return proxy.disconnect(false), 0; };
    const auto remove = [&] { return proxy.disconnect(true), 0; };
    const step subscription = {subscribed, "12 40 1 9", "1 | " + is + (kind == SGNL ? " 8" : " 7")};
    expect(proxy, {subscription, {remove, "", was + " |" + withdrawn}});
    expect(proxy, {subscription, {remove, "unsent", was + " |"}});
    expect(proxy, {subscription, {leave, "unsent", was + " 12 |"}, {remove, "", was + " 12 |"}});
    component.remove_connection(&proxy);
    expect(proxy, {subscription, {leave, "", was + " 12 |" + withdrawn}});
    component.remove_connection(&proxy);
  }
}

TEST_F(connections, stubs_may_be_offered_until_they_are_registered_but_not_again_after_their_withdrawal) {
  const auto sync = [&] { return stub.register_synchronous("put"); };
  const auto async = [&] { return stub.m_siid = no_siid, stub.register_asynchronous("put"); };
  const auto signal = [&] { return stub.register_signal("get"); };
  const auto leave = [&] { return stub.disconnect(false), 0; };
  const auto remove = [&] { return stub.disconnect(true), 0; };
  expect(stub, {{remove, "", "0 |  -1 -1 | |"},
                {signal, "unsent", "1 | get 2 -1 | |"},
                {remove, "", "0 | get 2 -1 | |"},
                {sync, "refused", "error 3 | put 0 -1 | | 3"}});
  EXPECT_FALSE(logged("Stub registered"));
  expect(stub, {{signal, "17", "1 | get 2 17 | 17 | 4"},
                {sync, "18", "0 | get 2 17 | 17 |"},
                {remove, "unsent", "0 | get 2 17 | 17 |"},
                {leave, "", "0 | get 2 17 | 17 | 6"},
                {remove, "", "0 | get 2 17 | | 6"},
                {sync, "18", "0 | get 2 17 | |"},
                {async, "18", "1 | put 1 18 | 18 | 3"},
                {remove, "", "0 | put 1 18 | | 5"}});
}

TEST_F(connections, have_kinds_with_names_and_requests_with_ids_that_mean_nothing) {
  std::string names;
  for (const auto kind : {SYNC, ASYNC, SGNL})
    names.append(KXconnection::interface_type2str[kind]) += " ";
  EXPECT_EQ("SYNC ASYNC SGNL ", names);
  for (const unsigned int id : {0u, 1u, 0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u})
    EXPECT_EQ(id != 1 && id != 0x44444444, is_reserved_id(id)) << id;
}

TEST_F(connections, stamp_their_siid_on_what_they_send_and_tell_when_nothing_was_sent) {
  for (const unsigned int siid : {no_siid, 261u}) {
    stub.m_siid = siid;
    EXPECT_TRUE(stub.connection_send(message));
    EXPECT_EQ(bytes_of(make_message(7, siid, MSG_ERR, 42, 5)), core.data.receive());
    EXPECT_EQ(component.m_data_socket_name, core.data.sender());
  }
  component_probe bare("bare", nullptr);
  EXPECT_FALSE(stub_probe(&bare).connection_send(message)) << "0 bytes";
  fail(SENDTO, EAGAIN, 3);
  EXPECT_FALSE(stub.connection_send(message)) << "an error";
}

TEST_F(connections, receive_a_datagram_or_nothing_into_an_emptied_message) {
  using row = std::tuple<const char*, int, bool, int, double>;
  for (const auto& [arriving, failures, result, size, end] :
       {row{"0 0 0 1 0 0 0 2 4 3 0 0 0 4 9 1", 0, true, 2, 100.5}, row{"1 2 3", 0, true, 0, 100.5},
        row{"", 0, false, 0, 100.5}, row{"none", 0, false, 0, 110.5}, row{"1 2 3", 1, false, 0, 110.5}}) {
    if (*arriving != 'n') core.data.send(component.m_data_socket_name, hex(arriving));
    fail(RECVFROM, EAGAIN, failures);
    message << 5, message.pos = 3;
    EXPECT_EQ(result, stub.connection_receive(message)) << arriving;
    EXPECT_EQ(std::tuple(size, 0, end), std::tuple(message.size, message.pos, now())) << arriving;
  }
}

// Each second something arrives: o(ther message), r(esponse), or n bytes of a response (character '0' + n). A
// comma lets another half a second pass.
TEST_F(connections, proxies_wait_for_their_response_and_hold_the_mutex_meanwhile) {
  subscribe();
  const char* at = nullptr;
  before(SENDTO, [&] { EXPECT_FALSE(is_free(component.m_mutex)); });
  when_idle([&] {
    EXPECT_FALSE(is_free(component.m_mutex));
    for (; *at == ','; ++at)
      advance(0.5);
    if (*at == '\0') return;
    advance(1);
    KXmessage next = make_message(1, 2, MSG_ERR, 3, *at == 'o' ? unsigned(now()) : proxy.m_mid);
    next << 1;
    auto sent = bytes_of(next);
    if (*at < 'a') sent.resize(static_cast<std::size_t>(*at - '0'));
    core.data.send(component.m_data_socket_name, sent);
    ++at;
  });
  constexpr char late[] = "did not arrive within 3 seconds ... bailing out",
                 silence[] = "Receive message timeout",
                 wrong[] = "[get] Received several msgs with wrong id ... bailing out",
                 kept[] = "[get] received message added to waiting queue: id=10";
  using row = std::tuple<const char*, unsigned int, int, int, int, double, std::size_t, const char*>;
  for (const auto& [arrivals, limit, failing_readings, good_readings, result, end, set_aside, line] :
       {row{"oor", 3, 0, 0, 1, 103.25, 2, kept}, row{"oooo", 3, 0, 0, 0, 104.25, 3, late},
        row{",ooor", 3, 0, 0, 1, 104.75, 3, kept}, row{"or", ~0u, 0, 0, 1, 102.25, 1, kept},
        row{"1111", 3, 0, 0, 0, 104.25, 0, late}, row{"oooooo", 3, 1, 0, 0, 106.25, 5, wrong},
        row{"oo111o", 3, 1, 0, 0, 106.25, 2, wrong},
        row{"oooooo", 3, 9, 1, 0, 106.25, 5, "Failed to get the current time: Input/output error"},
        row{"oooooo", 9, 1, 6, 0, 106.25, 5, wrong}, row{"", 0, 0, 0, 0, 110.25, 0, silence},
        row{"oo", 60, 0, 0, 0, 112.25, 2, silence},
        row{"123456789:;<=0", 60, 0, 0, 0, 114.25, 0, "(proxy_send) - dropped a datagram of 13 bytes"}}) {
    SCOPED_TRACE(arrivals);
    fake_clock(100.25);
    clear_lines();
    component.m_waiting_queue.clear();
    proxy.m_timeout = limit;
    fail(CLOCK_GETTIME, EIO, failing_readings, good_readings);
    at = arrivals;
    message = make_message(7, 9, MSG_ERR, 42, 5);
    EXPECT_EQ(result, proxy.proxy_send(message));
    EXPECT_EQ(bytes_of(make_message(40, 12, MSG_REQ, 42, proxy.m_mid)), core.data.receive());
    EXPECT_EQ(end, now());
    EXPECT_TRUE(logged(line)) << line;
    EXPECT_TRUE(is_free(component.m_mutex));
    ASSERT_EQ(set_aside, component.m_waiting_queue.size());
    for (std::size_t i = 0; i < set_aside; ++i)
      EXPECT_EQ(101 + i, bytes_of(component.m_waiting_queue[i])[13]) << "out of order";
    int response = 0;
    if (result == 1) message >> response;
    EXPECT_EQ(result, response);
    fail(CLOCK_GETTIME, 0, 0);
  }
  fail(SENDTO, EMSGSIZE, 3);
  EXPECT_EQ(0, proxy.proxy_send(message));
  EXPECT_EQ(116.25, now()) << "it waited for a response to what was not sent";
  before(SENDTO, nullptr);
}

TEST_F(connections, a_request_takes_four_system_calls_and_no_allocation) {
  subscribe();
  bool served = false;
  stub.on_message = [&](KXmessage& request) { served = stub.connection_send(request); };
  component.bind_siid(40, &stub);
  for (const auto& [siid, id] : {std::pair{12u, 1001u}, {12u, 1002u}, {40u, 7u}, {13u, 8u}})
    core.data.send(component.m_data_socket_name, make_message(siid, 8, MSG_RSP, 1, id));
  reset();
  EXPECT_EQ(1, proxy.proxy_send(message));
  EXPECT_EQ(4, count_all());
  fail(NEW, ENOMEM);
  proxy.proxy_send(message);
  component.get_data_message(-1);
  EXPECT_TRUE(served);
  EXPECT_FALSE(has_failed(NEW));
  EXPECT_THROW(proxy.proxy_send(message), std::bad_alloc) << "a message that is set aside is copied";
  EXPECT_TRUE(is_free(component.m_mutex));
}
