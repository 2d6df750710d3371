
#include "probe.h"

using namespace seam;

class proxy : public core_test {
 protected:
  void subscribe(KXconnection::interface_type_e kind, int first = 1000, int end = 1003) {
    answer(MSG_RSP, {12, 40, first, end});
    EXPECT_EQ(1, subject.subscribe_service("get", kind, nullptr));
  }

  proxy_probe subject{&component};
  stub_probe server{&component};
  KXmessage message = make_message(7, 9, MSG_ERR, 42, 5);
};

constexpr KXconnection::interface_type_e kinds[] = {KXconnection::SYNC, KXconnection::ASYNC,
                                                    KXconnection::SGNL};

TEST_F(proxy, keeps_the_reply_interface_of_its_last_subscription) {
  struct : KXproxyReplyInterface {
    void process_reply(KXmessage&) override {}
  } reply;
  fail(SENDTO, EAGAIN, 99);
  for (const auto other : {&KXproxy::subscribe_synchronous, &KXproxy::subscribe_signal}) {
    subject.subscribe_asynchronous("get", &reply);
    EXPECT_EQ(&reply, subject.m_reply_interface);
    (subject.*other)("get");
    EXPECT_EQ(nullptr, subject.m_reply_interface);
  }
}

TEST_F(proxy, looks_subscribed_after_a_failed_or_refused_subscription) {
  fail(SENDTO, EAGAIN, 3);
  EXPECT_EQ(0, subject.subscribe_signal("get"));
  EXPECT_EQ("get 2 -1 -1 0 0 0", subject.state());
  EXPECT_EQ(1, subject.proxy_send(message));
  subject.disconnect(true);
  EXPECT_EQ("get -1 -1 -1 0 0 1", subject.state());
  EXPECT_EQ("", asked()) << "there is no siid to withdraw";
  subscribe(KXconnection::ASYNC);
  subject.m_mid = 1001;
  answer(MSG_ERR);
  EXPECT_THROW(subject.subscribe_signal("other"), KXerror::error_e);
  EXPECT_EQ("other 2 12 40 1000 1003 1001", subject.state());
}

TEST_F(proxy, leaves_a_message_alone_unless_it_is_connected) {
  EXPECT_EQ(0, subject.proxy_send(message));
  subscribe(KXconnection::SYNC);
  subject.disconnect(true);
  EXPECT_EQ(0, subject.proxy_send(message));
  EXPECT_EQ(bytes_of(make_message(7, 9, MSG_ERR, 42, 5)), bytes_of(message));
}

TEST_F(proxy, addresses_its_messages_and_numbers_them_within_its_range) {
  using row = std::tuple<KXconnection::interface_type_e, int, int, msg_type_e, std::vector<unsigned int>>;
  for (const auto& [kind, first, end, type, ids] :
       {row{KXconnection::ASYNC, 1000, 1003, MSG_REQ, {1001, 1002, 1000, 1001}},
        row{KXconnection::SGNL, 1000, 1003, MSG_SIG, {1001}},
        row{KXconnection::ASYNC, 5, 6, MSG_REQ, {5, 5}}}) {
    subscribe(kind, first, end);
    for (const unsigned int id : ids) {
      EXPECT_EQ(1, subject.proxy_send(message));
      EXPECT_EQ(bytes_of(make_message(40, 12, type, 42, id)), core.data.receive());
    }
    subject.disconnect(true);
  }
}

TEST_F(proxy, awaits_nothing_when_the_message_was_not_sent) {
  for (const auto kind : kinds) {
    subscribe(kind);
    const int waits = count(SELECT);
    fail(SENDTO, EMSGSIZE, 3);
    EXPECT_EQ(0, subject.proxy_send(message)) << kind;
    EXPECT_EQ(waits, count(SELECT)) << kind;
    EXPECT_TRUE(is_free(component.m_mutex)) << kind;
    subject.disconnect(true);
  }
}

// Each second something arrives: o(ther message), r(esponse), or n bytes of a response (character '0' + n). A
// comma lets another half a second pass.
TEST_F(proxy, waits_for_its_response_and_holds_the_mutex_meanwhile) {
  subscribe(KXconnection::SYNC);
  const char* at = nullptr;
  before(SENDTO, [&] { EXPECT_FALSE(is_free(component.m_mutex)); });
  when_idle([&] {
    EXPECT_FALSE(is_free(component.m_mutex));
    for (; *at == ','; ++at)
      advance(0.5);
    if (*at == '\0') return;
    advance(1);
    KXmessage next = make_message(1, 2, MSG_ERR, 3, *at == 'o' ? unsigned(now()) : subject.m_mid);
    next << 1;
    auto sent = bytes_of(next);
    if (*at < 'a') sent.resize(static_cast<std::size_t>(*at - '0'));
    core.data.send(component.m_data_socket_name, sent);
    ++at;
  });
  using row = std::tuple<const char*, unsigned int, int, int, int, double, std::size_t, const char*>;
  for (const auto& [arrivals, limit, failing_readings, good_readings, result, end, set_aside, line] :
       {row{"oor", 3, 0, 0, 1, 103.25, 2, "[get] received message added to waiting queue: id=102"},
        row{"oooo", 3, 0, 0, 0, 104.25, 3, "did not arrive within 3 seconds ... bailing out"},
        row{",ooor", 3, 0, 0, 1, 104.75, 3, "[get] received message added to waiting queue: id=103"},
        row{"or", ~0u, 0, 0, 1, 102.25, 1, "[get] received message added to waiting queue: id=101"},
        row{"1111", 3, 0, 0, 0, 104.25, 0, "did not arrive within 3 seconds ... bailing out"},
        row{"oooooo", 3, 1, 0, 0, 106.25, 5, "[get] Received several msgs with wrong id ... bailing out"},
        row{"oo111o", 3, 1, 0, 0, 106.25, 2, "[get] Received several msgs with wrong id ... bailing out"},
        row{"oooooo", 3, 9, 1, 0, 106.25, 5, "Failed to get the current time: Input/output error"},
        row{"oooooo", 9, 1, 6, 0, 106.25, 5, "[get] Received several msgs with wrong id ... bailing out"},
        row{"", 0, 0, 0, 0, 110.25, 0, "Receive message timeout"},
        row{"oo", 60, 0, 0, 0, 112.25, 2, "Receive message timeout"},
        row{"123456789:;<=0", 60, 0, 0, 0, 114.25, 0, "(proxy_send) - dropped a datagram of 13 bytes"}}) {
    SCOPED_TRACE(arrivals);
    fake_clock(100.25);
    clear_lines();
    component.m_waiting_queue.clear();
    subject.m_timeout = limit;
    fail(CLOCK_GETTIME, EIO, failing_readings, good_readings);
    at = arrivals;
    message = make_message(7, 9, MSG_ERR, 42, 5);
    EXPECT_EQ(result, subject.proxy_send(message));
    EXPECT_EQ(bytes_of(make_message(40, 12, MSG_REQ, 42, subject.m_mid)), core.data.receive());
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
  before(SENDTO, nullptr);
}

TEST_F(proxy, withdraws_by_its_kind_and_is_disconnected_even_when_it_cannot) {
  for (const auto kind : kinds) {
    for (const auto& [remove, sent] : {std::pair{false, true}, {true, true}, {false, false}, {true, false}}) {
      subscribe(kind);
      asked(), clear_lines();
      fail(SENDTO, EAGAIN, sent ? 0 : 3);
      subject.disconnect(remove);
      EXPECT_EQ(remove ? 0u : 1u, component.m_siid_map.count(12)) << kind << sent;
      EXPECT_EQ("get -1 12 40 1000 1003 1000", subject.state()) << kind << sent;
      EXPECT_EQ(sent ? 0 : 1, times_logged("Failed to unsubscribe service [get] from kxcore"));
      subject.disconnect(true);
      const std::string cmd = kind == KXconnection::SGNL ? "0A" : "09";
      EXPECT_EQ(sent ? " 00 00 00 01 00 00 00 01 04 " + cmd + " 06 00 00 00 0C" : "", asked())
          << "one notice";
      component.remove_connection(&subject);
    }
  }
  ASSERT_EQ(4u, failed_assertions().size()) << "once for each signal";
  EXPECT_EQ("components/kestrix/kxlib/KXproxy", failed_assertions()[0].path);
}

TEST_F(proxy, makes_four_system_calls_and_no_allocation_for_a_request) {
  subscribe(KXconnection::SYNC);
  bool served = false;
  server.on_message = [&](KXmessage& request) { served = server.connection_send(request); };
  component.bind_siid(40, &server);
  for (const auto& [siid, id] : {std::pair{12u, 1001u}, {12u, 1002u}, {40u, 7u}, {13u, 8u}})
    core.data.send(component.m_data_socket_name, make_message(siid, 8, MSG_RSP, 1, id));
  reset();
  EXPECT_EQ(1, subject.proxy_send(message));
  EXPECT_EQ(4, count_all());
  fail(NEW, ENOMEM);
  subject.proxy_send(message);
  component.get_data_message(-1);
  EXPECT_TRUE(served);
  EXPECT_FALSE(has_failed(NEW));
  EXPECT_THROW(subject.proxy_send(message), std::bad_alloc) << "a message that is set aside is copied";
  EXPECT_TRUE(is_free(component.m_mutex));
}
