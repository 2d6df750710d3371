// Threads beside the event loop.
#include <atomic>
#include <future>

#include "component_test.h"

// What happens before the loop begins, before each of its polls, when it first serves the management socket
// (ahead of the data, for which its poll has found something) and when it hands on each message; what is then
// received, what the calls come to, and how many management messages the loop gets: what wakes it and ends
// it.
struct script {
  const char* name;
  const char* at_first;
  const char* at_poll[3];
  const char* at_management;
  const char* at_message[3];
  ints received;
  const char* results;
  int management;
};

const script scripts[] = {
    {"calls_wake_it_once", "", {"1:rc2:rc"}, "", {}, {1, 10, 2, 10}, "1 1 ", 2},
    {"a_wake_up_that_an_exchange_took_is_made_up_for", "s", {"2rc"}, "", {"1rc", "x"}, {0, 1, 2}, "1 1 ", 4},
    {"a_call_that_fails_wakes_it", "", {"12fcu"}, "", {}, {1}, "0 ", 2},
    {"a_call_that_runs_out_of_memory_wakes_it", "", {"12mc"}, "", {}, {1}, "out of memory ", 2},
    {"a_wake_up_that_cannot_be_sent_is_made_good_by_the_next", "", {"1rwc1rc"}, "", {}, {1, 1}, "1 1 ", 2},
    {"what_was_set_aside_comes_before_what_came_later", "12r", {}, "c3", {}, {1, 2, 3}, "1 ", 3},
    {"a_call_leaves_it_nothing_to_wait_for_in_vain", "r", {}, "c", {}, {}, "1 ", 2},
    {"it_receives_again_after_a_call", "0", {"rc", "1"}, "", {}, {0, 1}, "1 ", 2},
    {"a_call_of_its_own_thread_marks_nothing", "1r", {}, "l2", {}, {2, 1}, "1 ", 2}};

// A component whose loop runs on the test's thread while another thread calls. The response lies in the data
// socket before the call is made, among what else is sent to it.
class beside_the_loop : public core_test, public testing::WithParamInterface<script> {
 protected:
  void SetUp() override {
    core_test::SetUp();
    fake_clock(100);
    answer(MSG_RSP, {12, 40, 1000, 2000});
    proxy.subscribe_synchronous("get");
    component.bind_siid(9, &stub);
    when_idle([this] {  // nothing wakes the loop any more
      slept_with = static_cast<int>(component.m_waiting_queue.size());
      component.sendKillMsgToSelf();
    });
  }

  void play(const char* characters) {
    for (; *characters != '\0'; ++characters)
      play(*characters);
  }
  void play_one_of(const char* const (&parts)[3], std::size_t number) {
    if (number <= std::size(parts) && parts[number - 1] != nullptr) play(parts[number - 1]);
  }
  void play(char what) {
    if (what == 'c') return on_another_thread([this] { call(); });
    if (what == 'l') return call();  // on the loop's own thread
    if (what == 'r') return send(make_message(12, 40, MSG_RSP, 0, proxy.m_mid + 1));
    if (what == 'w') return fail(SENDTO, EAGAIN, 1, 1);    // the wake-up, behind the request
    if (what == 'f') return fail(RECVFROM, EAGAIN, 1, 1);  // its second receive
    if (what == 'm') return before(RECVFROM, [this] { fail(NEW, ENOMEM, ++received_in_call == 2 ? 1 : 0); });
    if (what == 'u') return static_cast<void>(component.rec_message(component.m_data_fd, unread, true, peer));
    if (what == 's') return component.set_aside(make_message(9, 7, MSG_SIG, 0, 5));
    if (what == 'x') {
      core.reply(MSG_ERR);
      return static_cast<void>(ended([this] { return stub_probe(&component).register_signal("s"); }));
    }
    send(make_message(9, 7, MSG_SIG, static_cast<unsigned char>(what - '0'), 5));
  }
  void send(const KXmessage& sent) { core.data.send(component.m_data_socket_name, sent); }
  void call() {
    KXmessage request;
    results += ended([&] { return proxy.proxy_send(request); }) + " ";
  }

  proxy_probe proxy{&component};
  stub_probe stub{&component};
  ints received;
  std::string results;
  int slept_with = -1, received_in_call = 0;
  KXmessage unread;
  peer_info_t peer;
};

TEST_P(beside_the_loop, a_call_leaves_to_it) {
  script parts = GetParam();
  play(parts.at_first);
  stub.on_message = [&](KXmessage& each) {
    received.push_back(each.m_header->cmd);
    play_one_of(parts.at_message, received.size());
  };
  before(POLL, [&] {
    play_one_of(parts.at_poll, static_cast<std::size_t>(count(POLL)));
    if (count(POLL) == 9) component.sendKillMsgToSelf();  // it spins
  });
  component.on_mgmt = [&] { play(std::exchange(parts.at_management, "")); };
  if (*parts.at_management != '\0')
    core.mgmt.send(component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_NONE, 5));
  component.wait(true);
  EXPECT_EQ(parts.received, received);
  EXPECT_EQ(parts.results, results);
  EXPECT_EQ(0, slept_with) << "the loop slept on what was set aside";
  EXPECT_EQ(parts.management, times_logged("RX : [INTERCONNECT]->[INTERCONNECT] : SIG : "));
  EXPECT_EQ(100, now()) << "somebody waited in vain";
  EXPECT_LT(count(POLL), 9);
  EXPECT_TRUE(is_free(component.m_mutex));
}

INSTANTIATE_TEST_SUITE_P(, beside_the_loop, testing::ValuesIn(scripts),
                         [](const auto& each) { return std::string(each.param.name); });

using threads = component;

TEST_F(threads, wait_for_the_mutex_to_change_what_it_guards_and_for_nothing_else) {
  fake_clock(-1);
  proxy_probe asynchronous(&c);
  asynchronous.m_service_name = "get";
  asynchronous.m_interface_type = KXconnection::ASYNC;
  const std::tuple<const char*, bool, std::function<void()>> rows[] = {
      {"add_msec_timer", true, [&] { c.add_msec_timer(1, nullptr, ::call, 1); }},
      {"has_timer", true, [&] { c.has_timer(nullptr, ::call, 1); }},
      {"del_timer", true, [&] { c.del_timer(nullptr, ::call, 1); }},
      {"add_socket_descriptor", true, [&] { c.add_socket_descriptor(7, nullptr, ::call); }},
      {"add_socket_descriptor of none", false, [&] { c.add_socket_descriptor(-1, nullptr, ::call); }},
      {"remove_socket_descriptor", true, [&] { c.remove_socket_descriptor(7); }},
      {"add_close_cb", true, [&] { c.add_close_cb(nullptr); }},
      {"a send without a response", false, [&] { asynchronous.proxy_send(message); }},
      {"the kill message", false, [&] { c.sendKillMsgToSelf(); }},
      {"the loop", true, [&] { c.wait(true); }}};
  for (const auto& [name, waits, operation] : rows) {
    EXPECT_EQ(waits, waits_for(c.m_mutex, operation)) << name;
    EXPECT_TRUE(is_free(c.m_mutex)) << name;
  }
}

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
