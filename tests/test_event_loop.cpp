#include <atomic>
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

TEST_F(event_loop, polls_the_table_itself_until_the_earliest_deadline_if_there_is_one) {
  handler fire = noting("fired");
  c.add_msec_timer(250, &fire, call, 1);
  c.add_msec_timer(400, &fire, call, 2);
  run();
  EXPECT_EQ("251 150 -1 ", given(POLL));
}

TEST_F(event_loop, repeats_an_interrupted_poll_as_it_was_and_begins_anew_after_other_failures) {
  bound_stub stub(*this, "queued");
  handler fire = noting("fired");
  c.add_msec_timer(250, &fire, call, 1);
  fail(POLL, EINTR, 2);
  run([&] {
    if (count(POLL) == 4) fail(POLL, ENOMEM);
    if (count(POLL) == 1 || count(POLL) == 4) c.set_aside(message);
  });
  EXPECT_EQ("251 251 251 -1 -1 ", given(POLL));
  EXPECT_EQ("fired3 queued3 queued4 queued ", happened);
}

TEST_F(event_loop, takes_a_deadline_of_zero_for_none) {
  c.add_msec_timer(250, nullptr, call, 1);
  c.m_timers.front().ato = 0;
  run([&] { c.m_timers.clear(); });
  EXPECT_EQ("-1 ", given(POLL));
}

TEST_F(event_loop, keeps_what_has_a_handler_that_does_not_return_minus_one) {
  for (const int result : {-2, 0, 1, -1}) {
    component_probe own("own", nullptr);
    const channel ready;
    int timers = 0, served = 0;
    handler fire = [&](int) { return ++timers, result; };
    handler serve = [&](int) { return ++served, result; };
    own.add_msec_timer(30, &fire, call, 1);
    own.add_socket_descriptor(ready.ends[0], &serve, call);
    const int first = count(POLL);
    before(POLL, [&] {
      if (count(POLL) == first + 3) own.remove_socket_descriptor(ready.ends[0]);
      if (count(POLL) == first + 6) own.sendKillMsgToSelf();
    });
    when_idle([&] { own.m_timers.empty() ? static_cast<void>(own.sendKillMsgToSelf()) : void(); });
    own.wait(true);
    EXPECT_EQ(result == -1 ? (ints{1, 1}) : (ints{2, 2}), (ints{timers, served})) << result;
  }
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
  enum { NO_OTHER, OF_ITS_COOKIE, OF_ITS_CONTEXT, OF_ITS_HANDLER };  // and in the rest like the other two
  struct row {
    bool deletes_itself;
    int first;
    int result;
    const char* reported;
    bool is_armed;
  };
  constexpr char alone[] = "Callback function removed itself from list of timers (list of timers is empty)";
  constexpr char behind[] = "Callback function removed itself from list of timers";
  for (const row& each :
       {row{false, NO_OTHER, 0, "", true}, row{false, NO_OTHER, -1, "", false},
        row{true, NO_OTHER, 0, alone, true}, row{true, NO_OTHER, -1, alone, false},
        row{true, OF_ITS_COOKIE, 0, behind, true}, row{true, OF_ITS_CONTEXT, -1, behind, false},
        row{true, OF_ITS_HANDLER, -1, behind, false}, row{false, OF_ITS_COOKIE, -1, behind, true}}) {
    SCOPED_TRACE(std::to_string(each.deletes_itself) + std::to_string(each.first) +
                 std::to_string(each.result));
    reset();
    fake_clock(100);
    component_probe own("own", nullptr);
    handler fire;
    void* const other_context = each.first == OF_ITS_CONTEXT ? nullptr : &fire;
    const auto other_handler = each.first == OF_ITS_HANDLER ? [](void*, int) { return -1; } : call;
    const int other_cookie = each.first == OF_ITS_COOKIE ? 2 : 1;
    fire = [&](int) {
      if (each.deletes_itself) own.del_timer(&fire, call, 1);
      if (each.first != NO_OTHER) own.add_msec_timer(0, other_context, other_handler, other_cookie);
      return own.m_running = false, each.result;
    };
    own.add_msec_timer(50, &fire, call, 1);
    before(POLL, [&] { own.m_timers.front().ato += 50; });  // it fires early, so that others come before it
    own.wait(true);
    EXPECT_EQ(each.reported, std::string(logged(alone) ? alone : logged(behind) ? behind : ""));
    EXPECT_EQ(each.reported[0] == '\0' ? 0u : 1u, failed_assertions().size());
    EXPECT_EQ(each.is_armed, own.has_timer(&fire, call, 1) == 1);
    EXPECT_TRUE(each.first == NO_OTHER || own.has_timer(other_context, other_handler, other_cookie) == 1);
  }
}

// The mutex is held by that thread until the line is there.
TEST_F(event_loop, says_so_when_another_thread_has_removed_the_timer_that_was_waited_for) {
  std::thread other;
  c.add_msec_timer(5, nullptr, call, 1);
  before(POLL, [&] {
    if (count(POLL) == 2) c.sendKillMsgToSelf();
    if (count(POLL) > 1) return;
    std::atomic<bool> removed{false};
    other = std::thread([&] {
      pthread_mutex_lock(&c.m_mutex);
      c.del_timer(nullptr, call, 1);
      for (removed = true; !logged("(wait) - got a time out while there is no timer\n");)
        std::this_thread::yield();
      pthread_mutex_unlock(&c.m_mutex);
    });
    while (!removed)
      std::this_thread::yield();
  });
  c.wait(true);
  other.join();
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
  hung_up.close_end(1);
  broken.close_end(0);
  c.add_socket_descriptor(hung_up.ends[0], &served, call);
  c.add_socket_descriptor(broken.ends[1], &served, call);
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
  for (const bool adds : {true, false}) {
    reset();
    fake_clock(100);
    component_probe own("own", nullptr);
    const channel loud, quiet(false), added(false);
    handler serve = [&](int fd) { return note(fd == loud.ends[0] ? "loud" : "quiet"); };
    for (const int fd : {quiet.ends[0], loud.ends[0]})
      own.add_socket_descriptor(fd, &serve, call);
    before(POLL, [&] {
      if (count(POLL) == 1 && adds) own.add_socket_descriptor(added.ends[0], &serve, call);
      if (count(POLL) == 1 && !adds) own.remove_socket_descriptor(quiet.ends[0]);
    });
    when_idle([&] { own.sendKillMsgToSelf(); });
    own.wait(true);
    EXPECT_EQ("loud2 ", std::exchange(happened, "")) << adds;
  }
}

TEST_F(event_loop, serves_the_other_descriptors_before_a_kill_message_ends_it) {
  const channel ready;
  bound_stub stub(*this, "queued");
  handler served = [&](int) { return c.set_aside(message), note("served"); };
  c.add_socket_descriptor(ready.ends[0], &served, call);
  c.sendKillMsgToSelf();
  c.wait(true);
  EXPECT_EQ("served1 queued ", happened) << "the stub is disconnected, and handed nothing";
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

TEST_F(event_loop, dispatches_in_one_step_what_handlers_and_threads_set_aside_meanwhile) {
  bound_stub stub(*this, "queued");
  stub.on_message = [&](KXmessage& each) {
    note(std::to_string(each.m_header->cmd) + "/");
    c.m_running = false;
    if (each.m_header->cmd == 2) c.set_aside(make_message(9, 7, MSG_REQ, 3, 6));
    if (each.m_header->cmd == 3) on_another_thread([&] { c.set_aside(make_message(9, 7, MSG_REQ, 4, 6)); });
  };
  c.set_aside(make_message(8, 7, MSG_REQ, 1, 6));  // to nobody
  c.set_aside(message);
  run();
  EXPECT_EQ("2/0 3/0 4/0 queued ", happened);
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
  enum { NOBODY, READABLE, QUIET };
  for (const int taken_by : {NOBODY, READABLE, QUIET}) {
    for (const bool timer_is_due : {true, false}) {
      reset();
      fake_clock(100);
      component_probe own("own", nullptr);
      std::optional<channel> taking;
      handler fire = noting("fired"), stopping = [&](int) {
        own.stop();
        if (taken_by != NOBODY) taking.emplace(taken_by == READABLE);
        return -1;
      };
      own.on_mgmt = own.on_data = [&](int) { note("received"); };
      if (timer_is_due) own.add_msec_timer(0, &fire, call, 1);
      own.add_msec_timer(0, &stopping, call, 1);
      own.wait(true);
      EXPECT_EQ("", happened) << "of a component that has stopped";
      EXPECT_EQ(taken_by == NOBODY, logged("POLLNVAL [m_fda[i=0].fd="));
      EXPECT_TRUE(logged("(stop) - nothing to do"));
    }
  }
}

TEST_F(event_loop, looks_at_its_timers_only_when_no_other_thread_holds_the_mutex) {
  fake_clock(-1);
  c.sendKillMsgToSelf();
  EXPECT_TRUE(waits_for(c.m_mutex, [&] { c.wait(true); }));
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
