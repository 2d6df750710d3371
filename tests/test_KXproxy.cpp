#include <thread>

#include "probe.h"

// Whatever a test does to the proxy, the mutex must be free afterwards.
class proxy : public seam_test {
 protected:
  ~proxy() override {
    std::thread([this] { EXPECT_FALSE(pthread_mutex_trylock(mutex) || pthread_mutex_unlock(mutex)); }).join();
  }
  void connect(KXconnection::interface_type_e type) {
    seam::fake_clock(100.5);
    seam::before(seam::SELECT, [this] { core.serve(); });
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << fake_core::data_path; });
    component.register_component();
    core.reply(MSG_RSP, [](KXmessage& reply) {
      for (const int value : {12, 40, 1000, 1003})
        reply << value;
    });
    EXPECT_EQ(1, subject.subscribe_service("get", type, nullptr));
  }

  fake_core core;
  proxy_probe subject{&component};
  stub_probe server{&component};
  client_probe component{"c"};
  pthread_mutex_t* const mutex = &component.m_mutex;
  KXmessage message = make_message(7, 9, MSG_ERR, 42, 5);
};

TEST_F(proxy, sends_from_its_subscription_to_its_disconnection) {
  EXPECT_EQ(0, subject.proxy_send(message));
  for (const bool signal : {false, true}) {
    connect(signal ? KXconnection::SGNL : KXconnection::ASYNC);
    for (const unsigned int id : {1001, 1002, 1000}) {
      EXPECT_EQ(1, subject.proxy_send(message));
      EXPECT_EQ(bytes_of(make_message(40, 12, signal ? MSG_SIG : MSG_REQ, 42, id)), core.data.receive());
    }
    seam::fail(seam::SENDTO, EAGAIN, signal ? 3 : 0);
    subject.disconnect(signal);
    subject.disconnect(!signal);
    EXPECT_EQ(signal, seam::logged("Failed to unsubscribe service [get] from kxcore"));
    EXPECT_EQ(signal ? 0u : 1u, component.m_siid_map.count(12));
    message = make_message(7, 9, MSG_ERR, 42, 5);
    EXPECT_EQ(0, subject.proxy_send(message));
    EXPECT_EQ(bytes_of(make_message(7, 9, MSG_ERR, 42, 5)), bytes_of(message));
  }
  EXPECT_EQ("virtual void KXproxy::disconnect(bool)", seam::failed_assertions().at(0).function);
}

// Each second something arrives: o(ther message), r(esponse), or n bytes of a response (character '0' + n).
TEST_F(proxy, waits_for_its_response) {
  connect(KXconnection::SYNC);
  const char* at = nullptr;
  seam::when_idle([&] {
    if (*at == '\0') return;
    seam::advance(1);
    auto sent = bytes_of(make_message(1, 2, MSG_ERR, 3, *at == 'o' ? unsigned(seam::now()) : subject.m_mid));
    if (*at < 'a') sent.resize(static_cast<std::size_t>(*at - '0'));
    core.data.send(component.m_data_socket_name, sent);
    ++at;
  });
  using row = std::tuple<const char*, unsigned int, int, int, int, double, std::size_t, const char*>;
  for (const auto& [arrivals, limit, failing_readings, good_readings, result, end, set_aside, line] :
       {row{"oor", 3, 0, 0, 1, 103.5, 2, "[get] received message added to waiting queue: id=102"},
        row{"oooo", 3, 0, 0, 0, 104.5, 3, "did not arrive within 3 seconds ... bailing out"},
        row{"oooooo", 3, 1, 0, 0, 106.5, 5, "[get] Received several msgs with wrong id ... bailing out"},
        row{"oooooo", 3, 9, 1, 0, 106.5, 5, "Failed to get the current time: Input/output error"},
        row{"oooooo", 9, 1, 6, 0, 106.5, 5, "[get] Received several msgs with wrong id ... bailing out"},
        row{"", 0, 0, 0, 0, 110.5, 0, "Receive message timeout"},
        row{"oo", 60, 0, 0, 0, 112.5, 2, "Receive message timeout"},
        row{"123456789:;<=0", 60, 0, 0, 0, 114.5, 0, "(proxy_send) - dropped a datagram of 13 bytes"}}) {
    seam::fake_clock(100.5);
    component.m_waiting_queue.clear();
    subject.m_timeout = limit;
    seam::fail(seam::CLOCK_GETTIME, EIO, failing_readings, good_readings);
    at = arrivals;
    EXPECT_EQ(result, subject.proxy_send(message)) << arrivals;
    EXPECT_EQ(end, seam::now()) << arrivals;
    EXPECT_TRUE(seam::logged(line)) << line;
    ASSERT_EQ(set_aside, component.m_waiting_queue.size()) << arrivals;
    for (std::size_t i = 0; i < set_aside; ++i)
      EXPECT_EQ(101 + i, bytes_of(component.m_waiting_queue[i])[13]) << "out of order";
  }
}

TEST_F(proxy, makes_four_system_calls_and_no_allocation_for_a_request) {
  connect(KXconnection::SYNC);
  bool served = false;
  server.on_message = [&](KXmessage& request) { served = server.connection_send(request); };
  component.bind_siid(40, &server);
  for (const auto& [siid, id] : {std::pair{12u, 1001u}, {12u, 1002u}, {40u, 7u}, {13u, 8u}})
    core.data.send(component.m_data_socket_name, make_message(siid, 8, MSG_RSP, 1, id));
  seam::reset();
  EXPECT_EQ(1, subject.proxy_send(message));
  EXPECT_EQ((std::vector{seam::SENDTO, seam::CLOCK_GETTIME, seam::SELECT, seam::RECVFROM}), seam::calls());
  seam::fail_allocation(1);
  subject.proxy_send(message);
  component.get_data_message(-1);
  EXPECT_TRUE(served && !seam::allocation_failed());
  EXPECT_THROW(subject.proxy_send(message), std::bad_alloc) << "a message that is set aside is copied";
}
