// The clock of the timers, their list, and the table of descriptors.
#include <climits>
#include <tuple>

#include "component_test.h"

class timers : public component {
 protected:
  // One field of each timer.
  template <typename Field>
  std::vector<Field> listed(Field timer_entry_t::*field) const {
    std::vector<Field> found;
    for (const timer_entry_t& each : c.m_timers)
      found.push_back(each.*field);
    return found;
  }
};

TEST_F(timers, run_on_a_clock_that_wraps_each_hour) {
  const std::tuple<double, unsigned, unsigned, unsigned> rows[] = {// the stamp, and after 0 and 900,000 ms
                                                                   {0, 0, 1, 900001},
                                                                   {3599.999, 3599999, 3600000, 900000},
                                                                   {7201.5, 1500, 1501, 901501},
                                                                   {4300000.0019, 1600001, 1600002, 2500002},
                                                                   {2700, 2700000, 2700001, 1}};
  for (const auto& [seconds, stamp, at_once, longest] : rows) {
    fake_clock(seconds);
    EXPECT_EQ(std::tuple(stamp, at_once), std::tuple(get_currentTime(), get_timeout(0))) << seconds;
    for (const unsigned to : {900000u, 900001u, UINT_MAX})
      EXPECT_EQ(longest, get_timeout(to)) << seconds;
  }
  fail(CLOCK_GETTIME, EINVAL);
  EXPECT_EQ(0u, get_currentTime());
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
  for (const auto& [timeouts, between, order] : {row{{300, 100, 200}, 0, {1, 2, 0}},
                                                 {{100, 100, 101}, 0, {1, 0, 2}},
                                                 {{100, 100}, 0.001, {0, 1}},
                                                 {{100, 99}, 0.001, {1, 0}},
                                                 {{1000000, -1, 900000, 900001}, 0, {2, 0, 1, 3}}}) {
    fake_clock(3599.85);  // the stamps wrap between arming and expiry
    c.m_timers.clear();
    for (const int to : timeouts)
      c.add_msec_timer(to, nullptr, call, static_cast<int>(c.m_timers.size())), advance(between);
    EXPECT_EQ(order, listed(&timer_entry_t::cookie)) << timeouts[0];
  }
}

TEST_F(timers, keep_the_timeout_that_was_asked_for_and_expire_after_a_quarter_of_an_hour_at_the_latest) {
  c.add_timer(2, nullptr, call, 1);
  EXPECT_EQ(1, count(CLOCK_GETTIME)) << "where there is no other, it is not looked at again";
  c.add_timer(-1, nullptr, call, 2);
  c.add_timer(INT_MAX, nullptr, call, 3);
  c.add_msec_timer(1000000, nullptr, call, 4);
  EXPECT_EQ((ints{2000, -1000, -1000, 1000000}), listed(&timer_entry_t::to));
  EXPECT_EQ((std::vector{102001u, 1000001u, 1000001u, 1000001u}), listed(&timer_entry_t::ato));
}

TEST_F(timers, count_from_the_call_also_when_the_mutex_has_to_be_waited_for) {
  pthread_mutex_lock(&c.m_mutex);
  const auto arm = [&] { enlist(), c.add_msec_timer(0, nullptr, call, 1); };
  EXPECT_TRUE(sleeps_in(arm, [&] { advance(5), pthread_mutex_unlock(&c.m_mutex); }));
  EXPECT_EQ(100001u, c.m_timers.front().ato);
}

TEST_F(timers, are_known_by_context_handler_and_cookie) {
  int context = 0, other_context = 0;
  const std::tuple<void*, KXcomponent::handler_t, int> strangers[] = {
      {&other_context, call, 1}, {&context, [](void*, int) { return 0; }, 1}, {&context, call, 2}};
  c.add_msec_timer(500, &context, call, 1);
  for (const auto& [whose, what, cookie] : strangers) {
    EXPECT_EQ((ints{0, 0, 1}), (ints{c.has_timer(whose, what, cookie), c.del_timer(whose, what, cookie),
                                     c.has_timer(&context, call, 1)}));
  }
  c.add_msec_timer(100, &context, call, 1);
  c.del_timer(&context, call, 1);
  EXPECT_EQ(ints{500}, listed(&timer_entry_t::to)) << "the first of two equal ones goes";
  EXPECT_EQ(1, c.has_timer(&context, call, 1));
}

class descriptors : public component {
 protected:
  // The entries behind the component's own: descriptor, events found, and which context.
  std::string listed() const {
    std::string text;
    for (int i = 2; i < c.m_nfds; ++i)
      text += std::to_string(c.m_fda[i].fd) + "/" + std::to_string(c.m_fda[i].revents) + "/" +
              std::to_string(static_cast<const int*>(c.m_fd_handlers[i].context) - contexts) + " ";
    return text;
  }
  int contexts[4];
};

TEST_F(descriptors, are_listed_in_order_and_close_the_gap_of_a_removed_one) {
  c.m_fda[3].revents = 7;
  for (const int i : {0, 1, 2, 3})
    EXPECT_EQ(2 + i, c.add_socket_descriptor(ints{7, 0, 9, 7}[std::size_t(i)], &contexts[i], call));
  EXPECT_EQ("7/0/0 0/0/1 9/0/2 7/0/3 ", listed());
  EXPECT_EQ(0x19, c.m_fda[3].events);
  EXPECT_TRUE(logged("add generic descriptor (m_fda[3]=0)"));
  for (int i = 0; i < 4; ++i)
    c.m_fda[2 + i].revents = static_cast<short>(i);
  const std::pair<int, const char*> removals[] = {
      {0, "7/0/0 9/2/2 7/3/3 "}, {7, "9/2/2 7/3/3 "}, {8, "9/2/2 7/3/3 "}, {7, "9/2/2 "}, {9, ""}};
  for (const auto& [fd, remaining] : removals) {
    c.remove_socket_descriptor(fd);
    EXPECT_EQ(remaining, listed()) << fd;
  }
}

TEST_F(descriptors, are_64_at_most_and_none_negative) {
  for (int i = 2; i < 64; ++i)
    EXPECT_EQ(i, c.add_socket_descriptor(1000 + i, nullptr, call));
  clear_lines();
  EXPECT_EQ(-1, c.add_socket_descriptor(2000, nullptr, call));
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(-1, c.add_socket_descriptor(-1, nullptr, call));
  EXPECT_TRUE(logged("descriptor with value fd = -1: it is < 0"));
  EXPECT_EQ(64, c.m_nfds);
  c.m_nfds = 2;
}
