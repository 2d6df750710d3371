#include <cmath>
#include <optional>

#include "component_test.h"

// `happened` tells in which turn each thing was: behind how many polls.
using event_loop = component;

TEST_F(event_loop, serves_the_waiting_queue_then_descriptors_then_one_timer_a_turn) {
  const channel ready;
  handler served = [&](int) { return note("served", count(POLL) < 2 ? 0 : -1); };
  handler early = noting("early"), late = noting("late");
  bound_stub stub(*this, "queued");
  c.set_aside(message);
  c.add_socket_descriptor(ready.ends[0], &served, call);
  c.add_msec_timer(1, &late, call, 1);
  c.add_msec_timer(0, &early, call, 1);
  run([&] { advance(0.01); });  // both are due
  EXPECT_EQ("queued0 served1 served2 early3 late4 queued ", happened) << "and disconnected";
}

TEST_F(event_loop,
       polls_until_the_earliest_deadline_repeats_that_when_interrupted_and_begins_anew_after_failures) {
  bound_stub stub(*this, "queued");
  handler fire = noting("fired");
  c.add_msec_timer(250, &fire, call, 1);
  c.add_msec_timer(400, &fire, call, 2);
  fail(POLL, EINTR, 2);
  run([&] {
    if (count(POLL) == 4) fail(POLL, ENOMEM);
    if (count(POLL) == 1 || count(POLL) == 4) c.set_aside(message);
  });
  EXPECT_EQ("251 251 251 150 150 -1 ", given(POLL));
  EXPECT_EQ("fired3 queued3 queued4 fired5 queued ", happened);
}

TEST_F(event_loop, polls_the_table_itself_as_far_as_it_is_used) {
  const channel behind, changed, quiet(false);
  handler served = noting("served");
  c.add_socket_descriptor(quiet.ends[0], &served, call);
  c.add_msec_timer(5, &served, call, 1);
  c.m_fda[3] = {behind.ends[0], POLLIN, 0};
  run([&] {
    if (count(POLL) == 2) c.m_fda[2].fd = changed.ends[0];
  });
  EXPECT_EQ("served1 served2 ", happened);
}

TEST_F(event_loop, keeps_what_has_a_handler_that_does_not_return_minus_one) {
  const channel ready[4];
  int served = 0;
  handler take_result = [](int cookie) { return cookie; };
  handler read_result = [&](int fd) {
    char byte = 0;
    return read(fd, &byte, 1) == 1 ? served++ - 2 : 9;
  };
  for (int i = 0; i < 4; ++i) {
    c.add_msec_timer(30, &take_result, call, i - 2);
    c.add_socket_descriptor(ready[i].ends[0], &read_result, call);
  }
  before(POLL, [&] {
    if (count(POLL) == 7) c.sendKillMsgToSelf();
  });
  c.wait(true);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(i == 1 ? 0 : 1, c.has_timer(&take_result, call, i - 2)) << i - 2;
  EXPECT_EQ((ints{5, ready[0].ends[0], ready[2].ends[0]}), (ints{c.m_nfds, c.m_fda[2].fd, c.m_fda[3].fd}));
}

TEST_F(event_loop, arms_a_repeating_timer_again_when_its_handler_is_done) {
  handler slow = [&](int cookie) {
    note(std::to_string(std::lround(1000 * now())) + "/");
    advance(0.02);
    return count(POLL) < 3 ? cookie : -1;
  };
  c.add_msec_timer(100, &slow, call, 7);
  run();
  EXPECT_EQ("100101/1 100222/2 100343/3 ", happened);
}

TEST_F(event_loop, reports_a_timer_that_is_not_the_head_any_more_when_it_has_fired) {
  handler fire;
  const timer_entry_t other_cookie = {call, &fire, 2, 0, 0}, other_context = {call, nullptr, 1, 0, 0},
                      other_handler = {[](void*, int) { return -1; }, &fire, 1, 0, 0};
  const struct {
    bool deletes_itself;
    const timer_entry_t* comes_first;
    int result;
    int reported, reported_as_last;  // how often
    std::size_t left;                // timers
  } rows[] = {{false, nullptr, 0, 0, 0, 1},        {false, nullptr, -1, 0, 0, 0},
              {true, nullptr, 0, 1, 1, 1},         {true, nullptr, -1, 1, 1, 0},
              {true, &other_cookie, 0, 1, 0, 2},   {true, &other_context, -1, 1, 0, 1},
              {true, &other_handler, -1, 1, 0, 1}, {false, &other_cookie, -1, 1, 0, 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    component_probe own("own", nullptr);
    fire = [&](int) {
      if (row.deletes_itself) own.m_timers.clear();
      if (row.comes_first != nullptr) own.m_timers.push_front(*row.comes_first);
      return own.m_running = false, row.result;
    };
    own.add_msec_timer(50, &fire, call, 1);
    clear_lines();
    own.wait(true);
    EXPECT_EQ(row.reported, times_logged("removed itself from list of timers"));
    EXPECT_EQ(row.reported_as_last, times_logged("from list of timers (list of timers is empty)"));
    EXPECT_EQ(row.reported, times_logged("[ASSERT]"));
    EXPECT_EQ(row.left, own.m_timers.size());
  }
}

TEST_F(event_loop, says_so_when_the_timer_that_was_waited_for_is_gone) {
  c.add_msec_timer(5, nullptr, call, 1);
  before(POLL, [&] { count(POLL) == 1 ? c.del_timer(nullptr, call, 1) : c.sendKillMsgToSelf(); });
  c.wait(true);
  EXPECT_EQ(1, times_logged("(wait) - got a time out while there is no timer\n"));
}

TEST_F(event_loop, looks_at_no_entry_behind_a_closed_descriptor_and_stops) {
  channel closed, ready;
  handler served = noting("served");
  for (const int fd : {closed.ends[0], ready.ends[0]})
    c.add_socket_descriptor(fd, &served, call);
  closed.close_end(0);
  c.wait(true);
  EXPECT_EQ("", happened);
  EXPECT_EQ(1, times_logged("(wait) - POLLNVAL [m_fda[i=2].fd="));
  EXPECT_EQ(-1, c.m_data_fd);
}

TEST_F(event_loop, does_not_serve_descriptors_that_are_hung_up_or_in_error_and_keeps_them) {
  channel hung_up, broken;  // a byte is left to read in the first
  handler served = noting("served");
  hung_up.close_end(1), broken.close_end(0);
  for (const int fd : {hung_up.ends[0], broken.ends[1]})
    c.add_socket_descriptor(fd, &served, call);
  c.add_msec_timer(0, &served, call, 1);
  run([&] {
    if (count(POLL) == 3) c.sendKillMsgToSelf();
  });
  EXPECT_EQ("", happened) << "no timer fires either";
  EXPECT_EQ(3, times_logged("(wait) - POLLHUP [m_fda[i=2].fd="));
  EXPECT_EQ(3, times_logged("(wait) - POLLERR [m_fda[i=3].fd="));
  EXPECT_EQ(4, c.m_nfds);
}

TEST_F(event_loop, looks_at_the_table_as_handlers_leave_it) {
  const channel first, second, third, added;
  handler serve_added = noting("added"), serve_second = noting("second"), serve_third = noting("third");
  handler serve_first = [&](int fd) {
    EXPECT_EQ(first.ends[0], fd);
    c.add_socket_descriptor(added.ends[0], &serve_added, call);  // reached in this turn, with no events
    return note("first");                                        // the second comes to its place, and waits
  };
  c.add_socket_descriptor(first.ends[0], &serve_first, call);
  c.add_socket_descriptor(second.ends[0], &serve_second, call);
  c.add_socket_descriptor(third.ends[0], &serve_third, call);
  run();
  EXPECT_EQ("first1 third1 second2 added3 ", happened);
}

TEST_F(event_loop, serves_no_descriptor_in_a_turn_in_which_another_thread_changed_the_table) {
  const channel loud, quiet(false), added(false);
  handler serve = [&](int fd) { return note(fd == loud.ends[0] ? "loud" : "quiet"); };
  for (const int fd : {quiet.ends[0], loud.ends[0]})
    c.add_socket_descriptor(fd, &serve, call);
  run([&] {
    if (count(POLL) == 1) c.add_socket_descriptor(added.ends[0], &serve, call);
    if (count(POLL) == 2) c.remove_socket_descriptor(quiet.ends[0]);
  });
  EXPECT_EQ("loud3 ", happened);
}

TEST_F(event_loop, holds_the_mutex_for_a_timer_and_for_nothing_else_that_it_calls) {
  const channel ready;
  const auto look = [&](const std::string& where) {
    happened += (is_free(c.m_mutex) ? "" : "locked:") + where + " ";
    return -1;
  };
  handler descriptor = [&](int) { return look("descriptor"); }, timer = [&](int) { return look("timer"); };
  bound_stub stub(*this, "queued");
  stub.on_message = [&](KXmessage&) { look("queued"); };
  c.on_mgmt = [&](int) { look("management"), c.m_running = false; };
  c.set_aside(message);
  c.add_socket_descriptor(ready.ends[0], &descriptor, call);
  c.add_msec_timer(0, &timer, call, 1);
  run([&] { look("poll"); });
  EXPECT_EQ("queued poll descriptor poll locked:timer poll management queued ", happened);
  EXPECT_TRUE(is_free(c.m_mutex));
}

TEST_F(event_loop, stays_usable_when_a_handler_throws) {
  const channel ready;
  handler fail_to = [&](int) -> int { throw 1; };
  bound_stub stub(*this, "");
  stub.on_message = [](KXmessage&) { throw 1; };
  c.add_msec_timer(0, &fail_to, call, 1);
  for (const char* const what : {"timer", "descriptor", "message"}) {
    EXPECT_THROW(c.wait(true), int) << what;
    EXPECT_TRUE(c.m_running) << "it is left as it is";
    EXPECT_TRUE(is_free(c.m_mutex));
    EXPECT_NE(-1, c.m_data_fd) << "it was stopped";
    what[0] == 't' ? c.add_socket_descriptor(ready.ends[0], &fail_to, call) : (c.set_aside(message), 0);
  }
  EXPECT_EQ(2u, c.m_waiting_queue.size()) << "a message goes when its handlers are done";
}

TEST_F(event_loop, ends_by_a_stop_from_a_handler_even_when_its_descriptors_are_taken) {
  enum { BY_NOBODY, BY_WHAT_IS_READABLE, BY_WHAT_IS_QUIET };
  for (const int taken : {BY_NOBODY, BY_WHAT_IS_READABLE, BY_WHAT_IS_QUIET}) {
    for (const bool timer_is_due : {true, false}) {
      component_probe own("own", nullptr);
      std::optional<channel> taking;
      handler fire = noting("fired"), stopping = [&](int) {
        own.stop();
        if (taken != BY_NOBODY) taking.emplace(taken == BY_WHAT_IS_READABLE);
        return -1;
      };
      own.on_mgmt = own.on_data = [&](int) { note("received"); };
      if (timer_is_due) own.add_msec_timer(0, &fire, call, 1);
      own.add_msec_timer(0, &stopping, call, 1);
      clear_lines();
      own.wait(true);
      EXPECT_EQ("", happened) << "of a component that has stopped";
      EXPECT_EQ(taken == BY_NOBODY, logged("POLLNVAL [m_fda[i=0].fd="));
      EXPECT_TRUE(logged("(stop) - nothing to do"));
    }
  }
}

TEST_F(event_loop, delivers_to_all_that_are_bound_whatever_handlers_unbind_and_destroy) {
  for (int actor = 0; actor < 3; ++actor) {
    for (int target = 0; target < 3; ++target) {
      std::optional<bound_stub> stubs[3];
      std::string served;
      for (int i = 0; i < 3; ++i) {
        stubs[i].emplace(*this, "", KXconnection::SGNL).on_message = [&, i](KXmessage&) {
          served += std::to_string(i);
          if (i == actor) c.remove_connection(&*stubs[target]), stubs[target].reset();
        };
      }
      c.deliver(message);
      EXPECT_EQ(target <= actor ? "012" : target == 1 ? "02" : "01", served) << actor << target;
      for (auto& each : stubs)
        if (each) c.remove_connection(&*each);
    }
  }
}
