#include <unistd.h>

#include <cmath>
#include <optional>

#include "component_test.h"

using namespace seam;

// `happened` tells in which turn each thing was: behind how many polls.
class event_loop : public component {
 protected:
  event_loop() {
    fake_clock(100);
    when_idle([this] {
      if (c.m_timers.empty()) c.sendKillMsgToSelf();
    });
  }

  // Runs the loop for so many turns, or until it has nothing to wait for.
  void run(int turns) {
    before(POLL, [this, turns] {
      if (count(POLL) == turns) c.sendKillMsgToSelf();
    });
    c.wait(true);
  }
};

TEST_F(event_loop, serves_the_waiting_queue_then_descriptors_then_one_timer_a_turn) {
  const channel ready;
  handler served = noting("descriptor", -1), first = noting("first", -1), second = noting("second", -1);
  bound_stub stub(*this, "queued");
  c.set_aside(message);
  c.add_socket_descriptor(ready.ends[0], &served, call);
  c.add_msec_timer(0, &first, call, 1);
  advance(0.001);
  c.add_msec_timer(0, &second, call, 1);
  run(5);
  EXPECT_EQ("queued0 descriptor1 first2 second3 queued ", happened);
}

TEST_F(event_loop, polls_the_table_itself_until_the_earliest_timer_is_due) {
  handler fire = noting("fired", -1);
  c.add_msec_timer(250, &fire, call, 1);
  run(2);
  EXPECT_EQ(c.m_fda, given().polled);
  EXPECT_EQ(2u, given().polled_count);
  EXPECT_EQ((ints{251, -1}), given().poll_timeouts);
}

TEST_F(event_loop, takes_a_deadline_of_zero_for_none) {
  handler fire = noting("fired", -1);
  c.add_msec_timer(250, &fire, call, 1);
  c.m_timers.front().ato = 0;
  run(1);
  EXPECT_EQ((ints{-1}), given().poll_timeouts);
}

TEST_F(event_loop, repeats_an_interrupted_poll_with_its_timeout_and_begins_anew_after_other_failures) {
  bound_stub stub(*this, "queued");
  handler fire = noting("fired", -1);
  c.add_msec_timer(250, &fire, call, 1);
  fail(POLL, EINTR, 2);
  before(POLL, [&] {
    if (count(POLL) == 1) c.set_aside(message);
    if (count(POLL) == 4) fail(POLL, ENOMEM), advance(0.1), c.set_aside(message);
    if (count(POLL) == 6) c.sendKillMsgToSelf();
  });
  clear_lines();
  handler again = [&](int) { return note("again", -1); };
  c.add_msec_timer(500, &again, call, 2);
  c.wait(true);
  EXPECT_EQ((ints{251, 251, 251, 250, 150, -1}), given().poll_timeouts);
  EXPECT_EQ("fired3 queued3 queued4 again5 queued ", happened);
  EXPECT_FALSE(logged("Cannot allocate memory"));
}

TEST_F(event_loop, ends_at_once_when_it_is_not_to_run) {
  c.wait(false);
  EXPECT_EQ(0, count(POLL));
  EXPECT_EQ(-1, c.m_data_fd);
  EXPECT_TRUE(logged("[INFO] KXcomponent:"));
  EXPECT_TRUE(logged("(wait) - Exit polling loop\n"));
}

TEST_F(event_loop, keeps_what_has_a_handler_that_does_not_return_minus_one) {
  for (const bool is_timer : {true, false}) {
    for (const int result : {-2, 0, 1, -1}) {
      SCOPED_TRACE((is_timer ? "timer " : "descriptor ") + std::to_string(result));
      reset();
      component_probe own("own", nullptr);
      const channel ready;
      bool kept = false;
      handler keep = [&](int) { return result; };
      if (is_timer) {
        fake_clock(100);
        own.add_msec_timer(30, &keep, call, 1);
      } else {
        own.add_socket_descriptor(ready.ends[0], &keep, call);
      }
      before(POLL, [&] {
        if (count(POLL) == 1) return;
        kept = is_timer ? own.has_timer(&keep, call, 1) == 1 : own.m_nfds == 3;
        own.sendKillMsgToSelf();
      });
      own.wait(true);
      EXPECT_EQ(result != -1, kept);
    }
  }
}

TEST_F(event_loop, arms_a_repeating_timer_again_when_its_handler_is_done) {
  handler slow = [&](int cookie) {
    note(std::to_string(std::lround(1000 * now())) + "/");
    advance(0.02);
    return cookie;
  };
  c.add_msec_timer(100, &slow, call, 7);
  run(4);
  EXPECT_EQ("100101/1 100222/2 100343/3 ", happened);
  EXPECT_EQ(100, c.m_timers.front().to);
}

TEST_F(event_loop, reports_a_timer_that_is_not_the_head_any_more_when_it_has_fired) {
  struct row {
    const char* what;
    bool deletes, arms_earlier;
    int result;
    const char* reported;
  };
  for (const row& each : {row{"well", false, false, 0, nullptr}, row{"ends", false, false, -1, nullptr},
                          row{"deletes itself", true, false, 0, "timers (list of timers is empty)"},
                          row{"deletes itself and ends", true, false, -1, "timers (list of timers is empty)"},
                          row{"deletes itself before another", true, true, 0, "itself from list of timers"},
                          row{"fires early, and arms one before it", false, true, -1, "list of timers"}}) {
    SCOPED_TRACE(each.what);
    reset();
    fake_clock(100);
    component_probe own("own", nullptr);
    handler fire = [&](int) {
      if (each.deletes) own.del_timer(&fire, call, 1);
      if (each.arms_earlier) own.add_msec_timer(0, nullptr, call, 2);
      return own.m_running = false, each.result;
    };
    own.add_msec_timer(50, &fire, call, 1);
    before(POLL, [&] { own.m_timers.front().ato += each.arms_earlier ? 50 : 0; });
    own.wait(true);
    const bool is_armed = own.has_timer(&fire, call, 1) == 1;
    const bool was_left = each.reported != nullptr && !each.deletes;
    EXPECT_EQ(each.result != -1 || was_left, is_armed);
    EXPECT_EQ(each.reported != nullptr, logged("Callback function removed itself from list of timers"));
    EXPECT_EQ(each.reported != nullptr ? 1u : 0u, failed_assertions().size());
    EXPECT_TRUE(each.reported == nullptr || logged(each.reported));
    EXPECT_EQ(each.arms_earlier, own.has_timer(nullptr, call, 2) == 1) << "another timer was removed";
  }
}

TEST_F(event_loop, fires_one_timer_a_turn_and_none_while_a_descriptor_is_ready) {
  const channel ready;
  handler served = [&](int) { return note("descriptor", count(POLL) < 3 ? 0 : -1); };
  handler early = noting("early", -1), late = noting("late", -1);
  c.add_socket_descriptor(ready.ends[0], &served, call);
  c.add_msec_timer(1, &late, call, 1);
  c.add_msec_timer(0, &early, call, 1);
  run(6);
  EXPECT_EQ("descriptor1 descriptor2 descriptor3 early4 late5 ", happened);
}

TEST_F(event_loop, says_so_when_another_thread_has_removed_the_timer_that_was_waited_for) {
  c.add_msec_timer(5, nullptr, call, 1);
  when_idle(nullptr);
  before(POLL, [&] {
    if (count(POLL) == 1) on_another_thread([&] { c.del_timer(nullptr, call, 1); });
    if (count(POLL) == 2) c.sendKillMsgToSelf();
  });
  c.wait(true);
  EXPECT_TRUE(logged("[WARNING] KXcomponent:"));
  EXPECT_TRUE(logged("(wait) - got a time out while there is no timer\n"));
}

TEST_F(event_loop, looks_at_no_entry_behind_a_closed_descriptor_and_stops) {
  channel closed, ready;
  handler served = noting("served");
  c.add_socket_descriptor(closed.ends[0], &served, call);
  c.add_socket_descriptor(ready.ends[0], &served, call);
  close(std::exchange(closed.ends[0], -1));
  c.wait(true);
  EXPECT_EQ("", happened);
  EXPECT_EQ(1, count(POLL));
  EXPECT_TRUE(logged("[ERROR] KXcomponent:"));
  EXPECT_TRUE(logged("(wait) - POLLNVAL [m_fda[i=2].fd="));
  EXPECT_EQ(-1, c.m_data_fd);
}

TEST_F(event_loop, does_not_serve_descriptors_that_are_hung_up_or_in_error_and_keeps_them) {
  channel hung_up, broken;  // a byte is left to read in the first; the second is its writing end
  handler served = noting("served");
  close(std::exchange(hung_up.ends[1], -1));
  close(std::exchange(broken.ends[0], -1));
  const int hung_up_at = c.add_socket_descriptor(hung_up.ends[0], &served, call);
  const int broken_at = c.add_socket_descriptor(broken.ends[1], &served, call);
  c.add_msec_timer(0, &served, call, 1);
  run(3);
  EXPECT_EQ("", happened) << "no timer fires either";
  EXPECT_EQ(3, times_logged("(wait) - POLLHUP [m_fda[i=" + std::to_string(hung_up_at) + "].fd="));
  EXPECT_EQ(3, times_logged("(wait) - POLLERR [m_fda[i=" + std::to_string(broken_at) + "].fd="));
  EXPECT_EQ(4, c.m_nfds);
}

TEST_F(event_loop, looks_at_the_table_as_handlers_leave_it) {
  const channel first, second, third, added;
  handler serve_added = noting("added", -1);
  handler serve_first = [&](int fd) {
    EXPECT_EQ(first.ends[0], fd);
    c.add_socket_descriptor(added.ends[0], &serve_first, call);  // reached in this turn, with no events
    c.remove_socket_descriptor(added.ends[0]);
    c.add_socket_descriptor(added.ends[0], &serve_added, call);
    return note("first", -1);  // so that the second is skipped in this turn
  };
  handler serve_second = noting("second", -1), serve_third = noting("third", -1);
  c.add_socket_descriptor(first.ends[0], &serve_first, call);
  c.add_socket_descriptor(second.ends[0], &serve_second, call);
  c.add_socket_descriptor(third.ends[0], &serve_third, call);
  run(4);
  EXPECT_EQ("first1 third1 second2 added3 ", happened);
}

TEST_F(event_loop, serves_no_descriptor_in_a_turn_in_which_another_thread_changed_the_table) {
  for (const bool adds : {true, false}) {
    reset();
    fake_clock(100);
    component_probe own("own", nullptr);
    const channel loud, quiet(false), added(false);
    handler serve = [&](int fd) { return note(fd == loud.ends[0] ? "loud" : "quiet", -1); };
    for (const int fd : {quiet.ends[0], loud.ends[0]})
      own.add_socket_descriptor(fd, &serve, call);
    before(POLL, [&] {
      if (count(POLL) > 1) return;
      on_another_thread([&] {
        if (adds) own.add_socket_descriptor(added.ends[0], &serve, call);
        if (!adds) own.remove_socket_descriptor(quiet.ends[0]);
      });
    });
    when_idle([&] { own.sendKillMsgToSelf(); });
    own.wait(true);
    EXPECT_EQ("loud2 ", std::exchange(happened, "")) << (adds ? "added" : "removed");
  }
}

TEST_F(event_loop, serves_the_other_descriptors_before_a_kill_message_ends_it) {
  const channel ready;
  handler served = [&](int) {
    c.set_aside(message);
    return note("served", -1);
  };
  bound_stub stub(*this, "queued");
  c.add_socket_descriptor(ready.ends[0], &served, call);
  c.sendKillMsgToSelf();
  c.wait(true);
  EXPECT_EQ("served1 queued ", happened) << "the second is the disconnection";
}

TEST_F(event_loop, holds_the_mutex_for_a_timer_and_for_nothing_else_that_it_calls) {
  const channel ready;
  std::vector<std::pair<std::string, bool>> found;
  const auto look = [&](const char* where) { found.push_back({where, is_free(c.m_mutex)}); };
  handler descriptor = [&](int) { return look("descriptor"), -1; };
  handler timer = [&](int) { return look("timer"), -1; };
  bound_stub stub(*this, "");
  stub.on_message = [&](KXmessage&) { look("queued"); };
  c.on_mgmt = [&](int) { look("management"), c.m_running = false; };
  before(POLL, [&] {
    look("poll");
    if (count(POLL) == 3) c.sendKillMsgToSelf();
  });
  c.set_aside(message);
  c.add_socket_descriptor(ready.ends[0], &descriptor, call);
  c.add_msec_timer(0, &timer, call, 1);
  c.wait(true);
  const decltype(found) expected = {{"queued", true}, {"poll", true}, {"descriptor", true}, {"poll", true},
                                    {"timer", false}, {"poll", true}, {"management", true}};
  EXPECT_EQ(expected, found);
  EXPECT_TRUE(is_free(c.m_mutex));
}

TEST_F(event_loop, dispatches_in_one_step_what_handlers_and_threads_set_aside_meanwhile) {
  bound_stub stub(*this, "queued");
  stub.on_message = [&](KXmessage& each) {
    note(std::to_string(each.m_header->cmd) + "/");
    if (each.m_header->cmd == 2) {
      for (const std::uint8_t cmd : {std::uint8_t{3}, std::uint8_t{4}}) {
        each.m_header->cmd = cmd;
        cmd == 3 ? c.set_aside(each) : on_another_thread([&] { c.set_aside(each); });
      }
    }
  };
  c.set_aside(make_message(8, 7, MSG_REQ, 1, 6));  // to nobody
  c.set_aside(message);
  run(1);
  EXPECT_EQ("2/0 3/0 4/0 queued ", happened);
  EXPECT_TRUE(c.m_waiting_queue.empty());
}

TEST_F(event_loop, shows_what_it_dispatches) {
  for (const auto& [source, shown] :
       {std::pair{1u, "[INTERCONNECT]->[INTERCONNECT] : SIG : KILL-COMPONENT"}, {7u, "[7]->[9] : SIG : 11"}})
    c.set_aside(make_message(9, source, MSG_SIG, CMD_KILL_COMPONENT, 6)),
        happened += std::string("waiting RX : ") + shown + " (id=6)\n";
  run(1);
  std::string written;
  for (const log_line& line : lines())
    if (const auto at = line.text.find("waiting RX"); at != std::string::npos)
      written += line.text.substr(at);
  EXPECT_EQ(happened, written);
}

TEST_F(event_loop, stays_usable_when_a_handler_throws) {
  for (const bool is_timer : {true, false}) {
    handler fail_to = [&](int) -> int { throw 1; };
    const channel ready;
    is_timer ? c.add_msec_timer(0, &fail_to, call, 1)
             : c.add_socket_descriptor(ready.ends[0], &fail_to, call);
    EXPECT_THROW(c.wait(true), int);
    EXPECT_TRUE(c.m_running) << "it is left as it is";
    EXPECT_TRUE(is_free(c.m_mutex));
    EXPECT_NE(-1, c.m_data_fd) << "it was stopped";
    c.m_timers.clear();
    c.remove_socket_descriptor(ready.ends[0]);
  }
  EXPECT_FALSE(logged("Exit polling loop"));
}

TEST_F(event_loop, ends_by_a_stop_from_a_handler_even_when_its_descriptors_are_taken) {
  for (const bool taken : {false, true}) {
    reset();
    fake_clock(100);
    component_probe own("own", nullptr);
    int ends[2] = {-1, -1};
    handler stopping = [&](int) { return own.stop(), taken ? pipe(ends) : 0; };
    handler fire = noting("fired", -1);
    own.add_msec_timer(0, &fire, call, 1);
    own.add_msec_timer(0, &stopping, call, 1);
    own.wait(true);
    EXPECT_EQ("", happened) << "a timer of a component that has stopped";
    EXPECT_EQ(2, count(POLL));
    EXPECT_EQ(!taken, logged("POLLNVAL [m_fda[i=0].fd="));
    EXPECT_TRUE(logged("(stop) - nothing to do"));
    for (const int end : ends)
      close(end);
  }
}

TEST_F(event_loop, delivers_to_all_that_are_bound_whatever_handlers_unbind_and_destroy) {
  for (int actor = 0; actor < 3; ++actor) {
    for (int target = 0; target < 3; ++target) {
      std::optional<bound_stub> stubs[3];
      std::string served;
      for (int i = 0; i < 3; ++i) {
        stubs[i].emplace(*this, "", 9, KXconnection::SGNL).on_message = [&, i](KXmessage&) {
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
  EXPECT_TRUE(c.m_siid_map.empty());
}
