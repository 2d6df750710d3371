// The clock of the timers, their list, and the table of descriptors.
#include <unistd.h>

#include <climits>
#include <tuple>

#include "component_test.h"

using namespace seam;

class timers : public component {
 protected:
  timers() { fake_clock(100); }

  // The cookies of the armed timers, head first.
  ints order() const {
    ints cookies;
    for (const timer_entry_t& each : c.m_timers)
      cookies.push_back(each.cookie);
    return cookies;
  }
  static int other_call(void*, int) { return -1; }
};

TEST_F(timers, run_on_a_clock_that_wraps_each_hour) {
  const std::tuple<double, unsigned, unsigned, unsigned> rows[] = {// the stamp, and after 0 and 900,000 ms
                                                                   {0, 0, 1, 900001},
                                                                   {3599.999, 3599999, 3600000, 900000},
                                                                   {3600, 0, 1, 900001},
                                                                   {7201.5, 1500, 1501, 901500 + 1},
                                                                   {2700, 2700000, 2700001, 1}};
  for (const auto& [seconds, stamp, at_once, longest] : rows) {
    fake_clock(seconds);
    EXPECT_EQ(stamp, get_currentTime());
    EXPECT_EQ(at_once, get_timeout(0)) << seconds;
    for (const unsigned to : {900000u, 900001u, 1000000u, UINT_MAX})
      EXPECT_EQ(longest, get_timeout(to)) << seconds;
  }
}

TEST_F(timers, read_a_clock_that_fails_as_zero) {
  fail(CLOCK_GETTIME, EINVAL);
  EXPECT_EQ(0u, get_currentTime());
  EXPECT_TRUE(logged("(get_currentTime) - mc_run : clock_gettime returned -1"));
}

TEST_F(timers, tell_passed_deadlines_from_such_behind_the_wrap) {
  const unsigned rows[][3] = {{5, 5, 0},
                              {5, 6, 1},
                              {3599999, 3600000, 1},
                              {0, 3600000, 0},
                              {3599990, 5, 15},
                              {100, 3599000, 0},
                              {0, 900099, 900099},
                              {0, 900100, 0},
                              {900099, 0, 0},
                              {900100, 0, 2699900},
                              {1900100, 1000000, 2699900}};
  for (const auto& [stamp, deadline, left] : rows)
    EXPECT_EQ(left, static_cast<unsigned>(remaining_time(stamp, deadline))) << stamp << ' ' << deadline;
}

TEST_F(timers, are_listed_in_order_of_expiry) {
  struct row {
    ints timeouts;
    double between;
    ints order;
  };
  for (const auto& [timeouts, between, expected] : {row{{300, 100, 200}, 0, {1, 2, 0}},
                                                    {{100, 100, 101}, 0, {1, 0, 2}},
                                                    {{100, 100}, 0.001, {0, 1}},
                                                    {{100, 99}, 0.001, {1, 0}},
                                                    {{1000000, -1, 900000, 900001}, 0, {2, 0, 1, 3}}}) {
    fake_clock(3599.85);  // the stamps wrap between arming and expiry
    c.m_timers.clear();
    for (const int to : timeouts) {
      c.add_msec_timer(to, nullptr, call, static_cast<int>(c.m_timers.size()));
      advance(between);
    }
    EXPECT_EQ(expected, order()) << timeouts[0];
  }
}

TEST_F(timers, read_the_clock_once_unless_others_are_armed) {
  EXPECT_EQ(0, c.add_msec_timer(5, nullptr, call, 1));
  EXPECT_EQ(1, count(CLOCK_GETTIME));
  c.add_msec_timer(5, nullptr, call, 2);
  EXPECT_EQ(3, count(CLOCK_GETTIME));
}

TEST_F(timers, keep_the_timeout_that_was_asked_for) {
  c.add_msec_timer(1000000, nullptr, call, 1);
  c.add_timer(2, nullptr, call, 2);
  c.add_timer(-1, nullptr, call, 3);
  c.add_timer(INT_MAX, nullptr, call, 4);
  std::vector<std::pair<int, unsigned>> found;
  for (const timer_entry_t& each : c.m_timers)
    found.push_back({each.to, each.ato});
  const std::vector<std::pair<int, unsigned>> expected = {
      {2000, 102001}, {1000000, 1000001}, {-1000, 1000001}, {-1000, 1000001}};
  EXPECT_EQ(expected, found);
}

TEST_F(timers, expire_after_a_quarter_of_an_hour_at_the_latest) {
  for (const int to : {900000, 1000000, -1}) {
    component_probe own("own", nullptr);
    double fired = 0;
    handler fire = [&](int) { return fired = now(), own.m_running = false, -1; };
    fake_clock(100);
    own.add_msec_timer(to, &fire, call, 1);
    own.wait(true);
    EXPECT_NEAR(1000.001, fired, 1e-6) << to;
  }
}

TEST_F(timers, are_known_by_context_handler_and_cookie) {
  int context = 0, other_context = 0;
  const std::tuple<void*, KXcomponent::handler_t, int> strangers[] = {
      {&other_context, call, 1}, {&context, other_call, 1}, {&context, call, 2}};
  c.add_msec_timer(500, &context, call, 1);
  for (const auto& [whose, what, cookie] : strangers) {
    EXPECT_EQ(0, c.has_timer(whose, what, cookie));
    EXPECT_EQ(0, c.del_timer(whose, what, cookie));
    EXPECT_EQ(1, c.has_timer(&context, call, 1)) << "another was removed";
  }
  c.add_msec_timer(100, &context, call, 1);
  c.del_timer(&context, call, 1);
  ASSERT_EQ(1u, c.m_timers.size()) << "of two equal ones";
  EXPECT_EQ(500, c.m_timers.front().to) << "the later one";
}

class descriptors : public component {
 protected:
  // The descriptors of the table behind the component's own.
  ints listed() const {
    ints fds;
    for (int i = 2; i < c.m_nfds; ++i)
      fds.push_back(c.m_fda[i].fd);
    return fds;
  }
  int contexts[4];
};

TEST_F(descriptors, are_listed_in_order_and_asked_for_all_they_can_report) {
  c.m_fda[2].revents = 7;
  EXPECT_EQ(2, c.add_socket_descriptor(7, &contexts[0], call));
  EXPECT_EQ(3, c.add_socket_descriptor(0, &contexts[1], call));
  EXPECT_EQ((ints{7, 0}), listed());
  EXPECT_EQ((ints{0x19, 0}), (ints{c.m_fda[2].events, c.m_fda[2].revents}));
  EXPECT_EQ(&contexts[1], c.m_fd_handlers[3].context);
  EXPECT_TRUE(logged("add generic descriptor (m_fda[3]=0)"));
  c.m_nfds = 2;
}

TEST_F(descriptors, close_the_gap_of_a_removed_one_with_handlers_and_events) {
  for (const int i : {0, 1, 2, 3}) {
    c.add_socket_descriptor(i == 3 ? 7 : 7 + i, &contexts[i], call);
    c.m_fda[2 + i].revents = static_cast<short>(i);
  }
  c.remove_socket_descriptor(8);
  EXPECT_EQ((ints{7, 9, 7}), listed());
  EXPECT_EQ((ints{0, 2, 3}), (ints{c.m_fda[2].revents, c.m_fda[3].revents, c.m_fda[4].revents}));
  EXPECT_EQ(&contexts[2], c.m_fd_handlers[3].context);
  c.remove_socket_descriptor(7);
  EXPECT_EQ((ints{9, 7}), listed()) << "the first of two";
  EXPECT_EQ(&contexts[3], c.m_fd_handlers[3].context);
  c.remove_socket_descriptor(8);
  EXPECT_EQ((ints{9, 7}), listed()) << "one that is not there";
  c.remove_socket_descriptor(7);
  EXPECT_EQ((ints{9}), listed()) << "the last one";
  EXPECT_TRUE(is_free(c.m_mutex));
  c.remove_socket_descriptor(9);
}

TEST_F(descriptors, are_64_at_most) {
  for (int i = 2; i < 64; ++i)
    EXPECT_EQ(i, c.add_socket_descriptor(1000 + i, nullptr, call));
  clear_lines();
  EXPECT_EQ(-1, c.add_socket_descriptor(2000, nullptr, call));
  EXPECT_TRUE(lines().empty());
  EXPECT_TRUE(is_free(c.m_mutex));
  EXPECT_EQ(64, c.m_nfds);
  for (int i = 2; i < 64; ++i)
    c.remove_socket_descriptor(1000 + i);
  EXPECT_EQ(2, c.m_nfds);
}

TEST_F(descriptors, that_are_negative_are_refused_without_the_lock) {
  EXPECT_FALSE(waits_for(c.m_mutex, [&] { EXPECT_EQ(-1, c.add_socket_descriptor(-1, nullptr, call)); }));
  EXPECT_EQ(2, c.m_nfds);
  EXPECT_TRUE(logged("[ERROR] KXcomponent:"));
}

TEST_F(descriptors, and_timers_are_changed_under_the_mutex) {
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"add_msec_timer", [&] { c.add_msec_timer(1, nullptr, call, 1); }},
      {"has_timer", [&] { c.has_timer(nullptr, call, 1); }},
      {"del_timer", [&] { c.del_timer(nullptr, call, 1); }},
      {"add_socket_descriptor", [&] { c.add_socket_descriptor(7, nullptr, call); }},
      {"remove_socket_descriptor", [&] { c.remove_socket_descriptor(7); }},
      {"add_close_cb", [&] { c.add_close_cb(nullptr); }}};
  for (const auto& [name, operation] : operations) {
    EXPECT_TRUE(waits_for(c.m_mutex, operation)) << name;
    EXPECT_TRUE(is_free(c.m_mutex)) << name;
  }
}
