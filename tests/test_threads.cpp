// Threads beside the event loop.
#include <atomic>
#include <future>

#include "component_test.h"

// A component whose loop runs on the test's thread while another thread calls. The response lies in the data
// socket before the call is made, among what else is sent to it.
class beside_the_loop : public core_test {
 protected:
  void SetUp() override {
    core_test::SetUp();
    fake_clock(100);
    answer(MSG_RSP, {12, 40, 1000, 2000});
    proxy.subscribe_synchronous("get");
    component.bind_siid(9, &stub);
    stub.on_message = [this](KXmessage& each) { received.push_back(each.m_header->cmd); };
    when_idle([this] {  // nothing wakes the loop any more
      slept_with = static_cast<int>(component.m_waiting_queue.size());
      component.sendKillMsgToSelf();
    });
  }

  void send(std::uint8_t number) {
    core.data.send(component.m_data_socket_name, make_message(9, 7, MSG_SIG, number, 5));
  }
  void respond() {
    core.data.send(component.m_data_socket_name, make_message(12, 40, MSG_RSP, 0, proxy.m_mid + 1));
  }
  int call() {
    KXmessage request;
    return proxy.proxy_send(request);
  }
  int call_beside() {
    on_another_thread([this] { result = call(); });
    return result;
  }
  // Runs the loop, with `work` before its first poll, or when it first serves the management socket: before
  // the data socket, for which the poll has found something.
  void run_with(const std::function<void()>& work) {
    before(POLL, [this, work] {
      if (count(POLL) == 1) work();
    });
    component.wait(true);
  }
  void run_serving(const std::function<void()>& work) {
    component.on_mgmt = [this, work] {
      if (!std::exchange(served, true)) work();
    };
    core.mgmt.send(component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_NONE, 5));
    component.wait(true);
  }

  proxy_probe proxy{&component};
  stub_probe stub{&component};
  ints received;
  bool served = false;
  int slept_with = -1, result = -1;
};

TEST_F(beside_the_loop, calls_wake_the_loop_once_for_what_they_set_aside) {
  run_with([&] {
    for (const std::uint8_t number : {std::uint8_t{1}, std::uint8_t{2}})
      send(number), send(10), respond(), call_beside();
  });
  EXPECT_EQ(1, result);
  EXPECT_EQ((ints{1, 10, 2, 10}), received);
  EXPECT_EQ(0, slept_with) << "the loop slept on what was set aside";
  EXPECT_EQ(1, times_logged("RX : [INTERCONNECT]->[INTERCONNECT] : SIG : ") - 1) << "but the kill message";
}

// The wake-up for 1 comes while 0 is dispatched; the handler of 1 makes an exchange, which takes it.
TEST_F(beside_the_loop, a_wake_up_that_an_exchange_has_taken_is_followed_by_another) {
  stub.on_message = [this](KXmessage& each) {
    received.push_back(each.m_header->cmd);
    if (received.size() == 1) send(1), respond(), call_beside();
    if (received.size() != 2) return;
    core.reply(MSG_ERR);
    EXPECT_THROW(stub_probe(&component).register_signal("s"), KXerror::error_e);
  };
  component.set_aside(make_message(9, 7, MSG_SIG, 0, 5));
  run_with([&] { send(2), respond(), call_beside(); });
  EXPECT_EQ((ints{0, 1, 2}), received);
  EXPECT_EQ(0, slept_with);
}

TEST_F(beside_the_loop, a_call_that_fails_wakes_the_loop_too) {
  run_with([&] {
    send(1), send(2);
    fail(RECVFROM, EAGAIN, 1, 1);
    EXPECT_EQ(0, call_beside());
    char unread[100];  // it would wake the loop, too
    EXPECT_EQ(14, recv(component.m_data_fd, unread, sizeof unread, 0));
  });
  EXPECT_EQ((ints{1}), received);
  EXPECT_EQ(0, slept_with);
}

TEST_F(beside_the_loop, a_call_that_runs_out_of_memory_wakes_the_loop_too) {
  run_with([&] {
    send(1), send(2);
    before(RECVFROM, [this, earlier = count(RECVFROM)] {
      if (count(RECVFROM) == earlier + 2) fail(NEW, ENOMEM);
    });
    on_another_thread([&] { EXPECT_THROW(call(), std::bad_alloc); });
  });
  EXPECT_EQ((ints{1}), received);
  EXPECT_EQ(0, slept_with);
  EXPECT_TRUE(is_free(component.m_mutex));
}

TEST_F(beside_the_loop, a_wake_up_that_cannot_be_sent_is_made_good_by_the_next_without_a_pause) {
  run_with([&] {
    for (const int failures : {1, 0}) {
      send(1), respond();
      fail(SENDTO, EAGAIN, failures, 1);
      call_beside();
    }
  });
  EXPECT_EQ((ints{1, 1}), received);
  EXPECT_EQ(0, slept_with);
  EXPECT_EQ(0, count(SLEEP));
}

TEST_F(beside_the_loop, what_a_call_set_aside_is_delivered_before_what_came_later) {
  send(1), send(2), respond();
  run_serving([&] { call_beside(), send(3); });
  EXPECT_EQ((ints{1, 2, 3}), received);
}

TEST_F(beside_the_loop, a_call_leaves_the_loop_nothing_to_wait_for_in_vain) {
  respond();
  run_serving([&] { call_beside(); });
  EXPECT_EQ(1, result);
  EXPECT_EQ(100, now()) << "it waited for a datagram that the call had taken";
  EXPECT_EQ(2, times_logged("RX : [INTERCONNECT]->[INTERCONNECT] : SIG : ")) << "it was woken for nothing";
}

TEST_F(beside_the_loop, the_loop_receives_again_after_a_call) {
  send(0);  // which ends the first poll
  before(POLL, [&] {
    if (count(POLL) == 1) respond(), call_beside();
    if (count(POLL) == 2) send(1);
    if (count(POLL) == 9) component.sendKillMsgToSelf();  // it spins
  });
  component.wait(true);
  EXPECT_EQ((ints{0, 1}), received);
  EXPECT_LT(count(POLL), 9);
}

TEST_F(beside_the_loop, a_call_of_the_loops_own_thread_marks_nothing) {
  send(1), respond();
  run_serving([&] { result = call(), send(2); });
  EXPECT_EQ(1, result);
  EXPECT_EQ((ints{2, 1}), received) << "the data socket is read in the turn in which it was ready";
  EXPECT_EQ(2, times_logged("RX : [INTERCONNECT]->[INTERCONNECT] : SIG : ")) << "the loop woke itself";
}

TEST_F(beside_the_loop, receiving_holds_the_mutex) {
  before(RECVFROM, [&] { EXPECT_FALSE(is_free(component.m_mutex)); });
  send(1);
  component.get_data_message(-1);
  EXPECT_EQ((ints{1}), received);
}

TEST_F(beside_the_loop, what_is_only_sent_waits_for_no_call) {
  answer(MSG_RSP, {13, 40, 1000, 2000});
  proxy_probe asking(&component);
  asking.subscribe_asynchronous("get", nullptr);
  KXmessage request;
  EXPECT_FALSE(waits_for(component.m_mutex, [&] { EXPECT_EQ(1, asking.proxy_send(request)); }));
  component.remove_connection(&asking);
}

using threads = component;

TEST_F(threads, arm_and_remove_while_the_loop_runs) {
  fake_clock(-1);
  std::atomic<int> fired{0};
  handler fire = [&](int) { return ++fired < 400 ? 0 : (c.m_running = false, -1); };
  c.add_msec_timer(0, &fire, ::call, 0);
  std::vector<std::future<void>> others;
  for (int thread = 1; thread < 4; ++thread) {
    others.push_back(std::async(std::launch::async, [&, thread] {
      while (fired < 300) {
        c.add_msec_timer(thread, &fire, ::call, thread);
        c.add_socket_descriptor(c.m_mgmt_fd, &fire, ::call);
        c.add_close_cb([] { return 0; });
        c.set_aside(message);
        c.remove_socket_descriptor(c.m_mgmt_fd);
        if (c.has_timer(&fire, ::call, thread) == 1) c.del_timer(&fire, ::call, thread);
      }
    }));
  }
  c.wait(true);
  others.clear();
  EXPECT_EQ(2, c.m_nfds);
}
