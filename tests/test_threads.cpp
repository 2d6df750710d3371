// Threads beside the event loop.
#include <unistd.h>

#include <atomic>
#include <future>

#include "component_test.h"

using namespace seam;

// A component whose loop runs on the test's thread, on the fake clock, while another thread calls. The
// response lies in the data socket before the call is made, among what else is sent to it.
class beside_the_loop : public seam_test {
 protected:
  beside_the_loop() {
    fake_clock(100);
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << fake_core::data_path; });
    component.register_component();
    core.reply(MSG_RSP, [](KXmessage& reply) {
      for (const int value : {12, 40, 1000, 2000})
        reply << value;
    });
    proxy.subscribe_synchronous("get");
    component.bind_siid(siid, &stub);
    stub.on_message = [this](KXmessage& each) { received.push_back(each.m_header->cmd); };
    when_idle([this] {  // nothing wakes the loop any more
      slept_with = component.m_waiting_queue.size();
      component.sendKillMsgToSelf();
    });
  }

  ~beside_the_loop() override { component.stop(); }

  void send(int number) {
    core.data.send(component.m_data_socket_name,
                   make_message(siid, 7, MSG_SIG, static_cast<unsigned char>(number), 5));
  }
  void respond() {
    core.data.send(component.m_data_socket_name, make_message(12, 40, MSG_RSP, 0, proxy.m_mid + 1));
  }
  int call_beside() {
    int result = -1;
    on_another_thread([&] {
      KXmessage request;
      result = proxy.proxy_send(request);
    });
    return result;
  }

  static constexpr unsigned int siid = 9;
  fake_core core;
  client_probe component{"c", nullptr};
  proxy_probe proxy{&component};
  stub_probe stub{&component};
  ints received;
  std::size_t slept_with = 99;
};

TEST_F(beside_the_loop, a_call_wakes_the_loop_for_what_it_set_aside) {
  int result = -1;
  before(POLL, [&] {
    if (count(POLL) != 1) return;
    send(1), send(2), respond();
    result = call_beside();
  });
  component.wait(true);
  EXPECT_EQ(1, result);
  EXPECT_EQ((ints{1, 2}), received);
  EXPECT_EQ(0u, slept_with) << "the loop slept on what was set aside";
}

TEST_F(beside_the_loop, a_call_that_fails_wakes_the_loop_too) {
  before(POLL, [&] {
    if (count(POLL) != 1) return;
    send(1), send(2);
    fail(RECVFROM, EAGAIN, 1, 1);
    EXPECT_EQ(0, call_beside());
    char unread[100];  // it would wake the loop, too
    EXPECT_EQ(14, recv(component.m_data_fd, unread, sizeof unread, 0));
  });
  component.wait(true);
  EXPECT_EQ((ints{1}), received);
  EXPECT_EQ(0u, slept_with);
}

TEST_F(beside_the_loop, a_call_that_runs_out_of_memory_wakes_the_loop_too) {
  before(POLL, [&] {
    if (count(POLL) != 1) return;
    send(1), send(2);
    on_another_thread([&] {
      KXmessage request;
      before(RECVFROM, [this, earlier = count(RECVFROM)] {
        if (count(RECVFROM) == earlier + 2) fail_allocation(1);
      });
      EXPECT_THROW(proxy.proxy_send(request), std::bad_alloc);
    });
  });
  component.wait(true);
  EXPECT_EQ((ints{1}), received);
  EXPECT_EQ(0u, slept_with);
  EXPECT_TRUE(is_free(component.m_mutex));
}

// In one turn of the loop: the call is made while the management socket is served, before the data socket,
// for which the poll found something.
TEST_F(beside_the_loop, what_a_call_set_aside_is_delivered_before_what_came_later) {
  component.on_mgmt = [&] {
    if (received.empty() && call_beside() == 1) send(3);
  };
  send(1), send(2), respond();
  core.mgmt.send(component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_NONE, 5));
  component.wait(true);
  EXPECT_EQ((ints{1, 2, 3}), received);
}

TEST_F(beside_the_loop, a_call_leaves_the_loop_nothing_to_wait_for_in_vain) {
  int result = -1;
  component.on_mgmt = [&] {
    if (result < 0) result = call_beside();
  };
  respond();
  core.mgmt.send(component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_NONE, 5));
  component.wait(true);
  EXPECT_EQ(1, result);
  EXPECT_EQ(100, now()) << "it waited for a datagram that the call had taken";
}

TEST_F(beside_the_loop, the_loop_receives_again_after_a_call) {
  before(POLL, [&] {
    if (count(POLL) == 1) respond(), call_beside();
    if (count(POLL) == 2) send(1);
    if (count(POLL) == 9) component.sendKillMsgToSelf();  // it spins
  });
  send(0);  // which ends the first poll
  component.wait(true);
  EXPECT_EQ((ints{0, 1}), received);
  EXPECT_LT(count(POLL), 9);
}

TEST_F(beside_the_loop, one_message_wakes_the_loop_for_many_calls) {
  before(POLL, [&] {
    if (count(POLL) != 1) return;
    for (const int number : {1, 2, 3})
      send(number), respond(), call_beside();
  });
  component.wait(true);
  EXPECT_EQ((ints{1, 2, 3}), received);
  EXPECT_EQ(1, times_logged("RX : [INTERCONNECT]->[INTERCONNECT] : SIG : \n") +
                   times_logged("(rec_message) - RX : [INTERCONNECT]->[INTERCONNECT] : SIG : ") -
                   times_logged(": SIG : KILL-COMPONENT") / 2);
}

TEST_F(beside_the_loop, a_wake_up_that_cannot_be_sent_is_tried_again) {
  before(POLL, [&] {
    if (count(POLL) != 1) return;
    for (const int number : {1, 2}) {
      send(number), respond();
      fail(SENDTO, EAGAIN, number == 1 ? 3 : 0, 1);
      call_beside();
    }
  });
  component.wait(true);
  EXPECT_EQ((ints{1, 2}), received);
  EXPECT_EQ(0u, slept_with);
}

TEST_F(beside_the_loop, receiving_holds_the_mutex) {
  bool was_free = true;
  before(RECVFROM, [&] { was_free = is_free(component.m_mutex); });
  send(1);
  component.get_data_message(-1);
  EXPECT_FALSE(was_free);
  EXPECT_EQ((ints{1}), received);
}

TEST_F(beside_the_loop, a_call_of_the_loops_own_thread_marks_nothing) {
  send(1), respond();
  bool called = false;
  component.on_mgmt = [&] {
    KXmessage request;
    if (std::exchange(called, true)) return;
    EXPECT_EQ(1, proxy.proxy_send(request));
    send(2);
  };
  core.mgmt.send(component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_NONE, 5));
  component.wait(true);
  EXPECT_EQ((ints{2, 1}), received) << "the data socket is read in the turn in which it was ready";
  EXPECT_FALSE(logged("TX : [INTERCONNECT]->[INTERCONNECT] : SIG : \n")) << "the loop woke itself";
}

using threads = component;

TEST_F(threads, arm_and_remove_while_the_loop_runs) {
  std::atomic<int> fired{0};
  handler fire = [&](int) { return ++fired < 400 ? 0 : (c.m_running = false, -1); };
  c.add_msec_timer(0, &fire, call, 0);
  std::vector<std::future<void>> others;
  for (int thread = 1; thread < 4; ++thread) {
    others.push_back(std::async(std::launch::async, [&, thread] {
      while (fired < 300) {
        c.add_msec_timer(thread, &fire, call, thread);
        c.add_socket_descriptor(c.m_mgmt_fd, &fire, call);
        c.add_close_cb([] { return 0; });
        c.set_aside(message);
        c.remove_socket_descriptor(c.m_mgmt_fd);
        if (c.has_timer(&fire, call, thread) == 1) c.del_timer(&fire, call, thread);
      }
    }));
  }
  c.wait(true);
  others.clear();
  EXPECT_EQ(2, c.m_nfds);
}
