#include <unistd.h>

#include <future>
#include <optional>

#include "KXinterface.h"
#include "probe.h"

using namespace seam;
using ints = std::vector<int>;
using handler = std::function<int(int)>;

std::string happened;
int call(void* context, int value) { return (*static_cast<handler*>(context))(value); }

// A stub that is bound to siid 9 and notes when it is disconnected.
struct bound_stub : stub_probe {
  bound_stub(KXcomponent* owner, interface_type_e type) : stub_probe(owner) {
    m_interface_type = type;
    owner->bind_siid(m_siid = 9, this);
  }
  void disconnect(bool) override { happened += std::to_string(m_interface_type) + " "; }
};

class component : public seam_test {
 protected:
  component() { happened.clear(); }
  int receive(int fd) { return c.rec_message(fd, message, true, peer); }
  int send(const std::string& path) { return c.send_message_to(c.m_data_fd, path.c_str(), message); }

  component_probe c{"comp", nullptr};
  KXmessage message = make_message(9, 7, MSG_REQ, 2, 6);
  peer_info_t peer;
};

TEST_F(component, failed_construction_leaves_nothing_behind) {
  fail(BIND, EACCES, 1, 1);
  EXPECT_THROW(component_probe("x", nullptr), KXerror::error_e);
  EXPECT_TRUE(logged("x-d failed - Permission denied") && access("/tmp/kxcore/x", F_OK) != 0);
  reset();
  EXPECT_THROW(component_probe(std::string(94, 'x').c_str(), nullptr), KXerror::error_e);
  EXPECT_TRUE(logged("x-d failed - File name too long") && calls().empty()) << "refused beforehand";
}

TEST_F(component, send_is_tried_three_times_a_second_apart) {
  for (int failures = 0; failures <= 3; ++failures) {
    reset();
    fake_clock(10);
    fail(SENDTO, EAGAIN, failures);
    fail(SLEEP, EINTR, 7);  // an interrupted pause goes on
    EXPECT_EQ(failures < 3 ? 14 : -1, send("/tmp/kxcore/comp"));
    EXPECT_TRUE(now() == 10 + std::min(failures, 2) && count(SENDTO) == std::min(failures + 1, 3))
        << failures;
    EXPECT_EQ(failures, times_logged("Error sending message (attempt="));
    EXPECT_EQ(failures == 2, logged("id=6 [2]") && logged("Succeeded to send msg (attempt=2)"));
  }
}

TEST_F(component, receive_gives_up_after_ten_seconds_or_a_failed_read) {
  fake_clock(100);
  fail(SELECT, EINTR);
  fail(RECVFROM, EAGAIN, 1, 1);
  message.size = 2034;
  EXPECT_TRUE(receive(c.m_data_fd) == 0 && now() == 110);
  EXPECT_EQ((ints{2048, 2048, 2034}), (ints{send("/tmp/kxcore/comp-d"), receive(c.m_data_fd), message.size}));
  EXPECT_EQ((ints{2048, -1, 0}), (ints{send("/tmp/kxcore/comp-d"), receive(c.m_data_fd), message.size}));
  // The failed read shows no sender, also not that of the read before.
  EXPECT_TRUE(logged("select failed - Inter") && logged("Receive message timeout") && logged("from  (id=6)"));
  EXPECT_EQ(-3, receive(-1) + send(std::string(108, 'x')) + c.send_message_to(0, "x", message));
  EXPECT_EQ(2, count(SENDTO)) << "what is refused is not tried";
}

TEST_F(component, timers_are_inserted_in_order_of_expiry) {
  const ints cases[][2] = {
      {{300, 100, 200}, {1, 2, 0}}, {{100, 100, 101}, {1, 0, 2}}, {{1000000, -1, 900000}, {2, 0, 1}}};
  fake_clock(3599.85);
  for (const auto& [timeouts, order] : cases) {
    for (const int to : timeouts)
      c.add_msec_timer(to, nullptr, call, static_cast<int>(c.m_timers.size()));
    for (const int cookie : order) {
      EXPECT_EQ(cookie, c.m_timers.front().cookie) << timeouts[0];
      c.m_timers.pop_front();
    }
  }
  const unsigned spans[][3] = {
      {3599990, 5, 15}, {0, 900099, 900099}, {0, 900100, 0}, {900099, 0, 0}, {900100, 0, 2699900}};
  for (const auto& [stamp, deadline, left] : spans)
    EXPECT_EQ(left, static_cast<unsigned>(remaining_time(stamp, deadline))) << stamp << ' ' << deadline;
}

TEST_F(component, timer_that_deletes_itself_is_reported_and_rearmed) {
  for (int round = 0; round < 8; ++round) {
    const int deletes = round & 1, others = round >> 1 & 1, result = -(round >> 2);
    component_probe own("own", nullptr);
    handler fire = [&](int) {
      if (deletes == 1) own.del_timer(&fire, call, 1);
      if (others == 1) own.add_msec_timer(0, nullptr, call, 2);
      return own.m_running = false, result;
    };
    reset();
    fake_clock(100);
    own.add_msec_timer(0, &fire, call, 1);
    own.wait(true);
    EXPECT_EQ(result + 1 + others * 2, own.has_timer(&fire, call, 1) + own.has_timer(nullptr, call, 2) * 2);
    EXPECT_EQ(deletes, times_logged("removed itself") * static_cast<int>(failed_assertions().size()));
    EXPECT_EQ(deletes > others, logged("removed itself from list of timers (list of timers is empty)"));
  }
}

TEST_F(component, loop_serves_the_waiting_queue_then_ready_descriptors_then_timers) {
  int ends[2], hung[2];
  EXPECT_EQ(2, pipe(ends) + pipe(hung) + write(ends[1], "x", 1) + write(hung[1], "x", 1) + close(hung[1]));
  const auto note = [](const char* what) { return happened += what + std::to_string(count(POLL)), -1; };
  handler timer = [&](int) -> int { throw note("timer"); };
  handler hung_up = [&](int) { return note("hung"); };
  handler ready = [&](int) { return c.remove_socket_descriptor(hung[0]), note("ready"); };
  bound_stub stub(&c, KXconnection::SYNC);
  stub.on_message = [&](KXmessage& each) {
    note("queued");
    if (each.m_header->cmd-- == 2) c.m_waiting_queue.push_back(each);
  };
  c.m_waiting_queue = {message};
  c.add_socket_descriptor(hung[0], &hung_up, call);
  c.add_socket_descriptor(ends[0], &ready, call);
  c.add_msec_timer(0, &timer, call, 1);
  fake_clock(100), fail(POLL, EINTR);
  EXPECT_THROW(c.wait(true), int);
  EXPECT_TRUE(c.m_running) << "an exception leaves it as it is";
  EXPECT_EQ("queued0queued0ready2timer3", happened);
  EXPECT_TRUE(times_logged("POLLHUP [m_fda[i=2].fd=") == 1 && count(CLOCK_GETTIME) == 3);
  EXPECT_EQ(0, std::async(std::launch::async, [this] { return c.has_timer(this, call, 1); }).get());
  c.stop();
}

TEST_F(component, descriptors_that_another_thread_moves_during_a_poll_keep_their_events) {
  int quiet[2], loud[2];
  ASSERT_EQ(1, pipe(quiet) + pipe(loud) + write(loud[1], "x", 1));
  handler serve = [&](int fd) {
    happened += (fd == loud[0] ? "loud" : "quiet") + std::to_string(count(POLL));
    return c.m_running = false, 0;
  };
  for (const int fd : {loud[0], quiet[0]})
    c.add_socket_descriptor(fd, &serve, call);
  before(POLL, [&] {
    if (count(POLL) > 1) return;
    c.remove_socket_descriptor(loud[0]);
    c.add_socket_descriptor(loud[0], &serve, call);
  });
  c.wait(true);
  EXPECT_EQ("loud2", happened);
  for (const int end : {quiet[0], quiet[1], loud[0], loud[1]})
    close(end);
}

TEST_F(component, other_threads_arm_and_remove_while_the_loop_runs) {
  std::atomic<int> fired{0};
  handler fire = [&](int) { return ++fired < 400 ? 0 : (c.m_running = false, -1); };
  c.add_msec_timer(0, &fire, call, 0);
  std::vector<std::future<void>> others;
  for (int thread = 1; thread < 4; ++thread) {
    others.push_back(std::async(std::launch::async, [&, thread] {
      while (fired < 300) {
        c.add_msec_timer(thread, &fire, call, thread);
        c.add_socket_descriptor(c.m_mgmt_fd, &fire, call);
        c.add_close_cb([] { return happened += "closed", 0; });
        c.remove_socket_descriptor(c.m_mgmt_fd);
        if (c.has_timer(&fire, call, thread) == 1) c.del_timer(&fire, call, thread);
      }
    }));
  }
  c.wait(true);
  others.clear();
  EXPECT_TRUE(happened == "closed" && c.m_nfds == 2);
}

TEST_F(component, delivery_survives_handlers_that_unbind_and_destroy) {
  for (int round = 0; round < 9; ++round) {
    const int actor = round % 3, target = round / 3;
    component_probe own("own", nullptr);
    std::optional<bound_stub> stubs[3];
    std::string served;
    const auto serve = [&](int i) {
      served += std::to_string(i);
      if (i == actor) own.remove_connection(&*stubs[target]), stubs[target].reset();
    };
    for (int i = 0; i < 3; ++i)
      stubs[i].emplace(&own, KXconnection::SGNL).on_message = [&serve, i](KXmessage&) { serve(i); };
    own.deliver(message);
    own.stop();
    EXPECT_EQ(target <= actor ? "012" : target == 1 ? "02" : "01", served) << actor << target;
  }
}

TEST_F(component, signal_handler_sends_the_kill_message_and_keeps_errno) {
  siginfo_t info = {};
  info.si_pid = 999999999;
  for (const int level : {3, 5, 6}) {
    trace_level(level);
    c.m_running = level > 3;
    errno = level;
    sig_handler(SIGTERM, &info, nullptr);
    EXPECT_EQ((ints{level, level > 5, (level > 3) + (level > 5)}), (ints{errno, count(OPEN), count(SENDTO)}));
  }
  EXPECT_TRUE(receive(c.m_mgmt_fd) == 14 && bytes_of(message) == hex("0 0 0 1 0 0 0 1 4 B 33 33 33 33"));
  c.sendKillMsgToSelf();
  c.wait(true);
  EXPECT_TRUE(logged("(15) not handled") && logged("from (pid)  999999999: killing comp"));
}

TEST_F(component, stop_from_a_handler_ends_the_loop_even_when_its_descriptors_are_taken) {
  for (const bool taken : {false, true}) {
    component_probe own("own", nullptr);
    int ends[2] = {-1, -1};
    handler stopping = [&](int) { return own.stop(), taken ? pipe(ends) : 0; };
    own.add_msec_timer(0, &stopping, call, 1);
    own.wait(true);
    EXPECT_EQ(!taken, logged("POLLNVAL [m_fda[i=0].fd="));
    EXPECT_TRUE(logged("(stop) - nothing to do"));
    for (const int end : ends)
      close(end);
    clear_lines();
  }
}

TEST_F(component, start_runs_phases_one_after_the_other_then_loops_and_stops) {
  struct phases : KXinterface {
    void startup_phase0(KXcomponent*) override { happened += "0"; }
    void startup_phase1(KXcomponent*) override { happened += "1"; }
    void startup_phase2(KXcomponent*) override { happened += "2"; }
  } first, second;
  bound_stub function(&c, KXconnection::SYNC), signal(&c, KXconnection::SGNL);
  EXPECT_THROW(c.bind_siid(9, &function), KXerror::error_e);
  c.bind_siid(9, &signal);
  c.bind_siid(no_siid, &function);
  c.add_close_cb([] { return happened += "close ", 0; });
  c.add_interface(&first);
  c.add_interface(&second);
  before(POLL, [&] { c.sendKillMsgToSelf(); });
  c.start(KXcomponent::CMP_START_AND_LOOP);
  c.start(static_cast<KXcomponent::cmp_start_e>(7));
  EXPECT_EQ("001122close 0 2 0 001122", happened) << "each connection is disconnected once";
  EXPECT_TRUE(count(POLL) == 1 && times_logged("start: KESTRIX init_done") == 2);
  EXPECT_EQ((ints{-1, -1, -1}), (ints{c.m_data_fd, c.m_mgmt_fd, c.sendKillMsgToSelf()}));
}
