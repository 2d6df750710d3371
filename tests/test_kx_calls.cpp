// Services, clients, signals and the loop of the layer kx, on the bus of the test.
#include "kx_test.h"
#include "seam.h"

namespace {

using kx_calls = kx_bus;

TEST_F(kx_calls, an_answer_is_the_value_of_the_call) {
  start();
  EXPECT_EQ("5", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_calls, each_error_is_told) {
  start();
  kx::client nobody(user, "nobody");
  kx::client signal(user, "tick");
  kx::emitter<int> tick(server, "tick");
  kx::client own(server, "maths");
  struct {
    std::string expected;
    std::string outcome;
  } const rows[] = {
      {"no service: nobody offers 'nobody'", told(nobody.call<int>(ADD, 4))},
      {"no service: 'tick' is a signal", told(signal.call<int>(ADD, 4))},
      {"refused: the service has no command 77", told(client.call<int>(77))},
      {"refused: the arguments do not fit: value 1 is missing", told(client.call<int>(ADD))},
      {"refused: the arguments do not fit: value 1 is an unsigned int, not an int",
       told(client.call<int>(ADD, 4u))},
      {"refused: the arguments do not fit: there are more than 1 values", told(client.call<int>(ADD, 4, 4))},
      {"refused: the service has not answered it", told(client.call<int>(SILENT))},
      {"unreadable: the answer does not fit: value 1 is an int, not a string",
       told(client.call<std::string>(ADD, 4))},
      {"unreadable: the answer does not fit: there are more than 0 values", told(client.call<>(ADD, 4))},
      {"too long: the arguments do not fit into a message",
       told(client.call<int>(ADD, std::string(3000, 'x')))},
      {"not sent: 'maths' is the application's own: only an asynchronous call reaches it",
       told(own.call<int>(ADD, 4))},
  };
  for (const auto& each : rows)
    EXPECT_EQ(each.expected, each.outcome);
}

TEST_F(kx_calls, a_service_that_does_not_answer_is_waited_for_ten_seconds) {
  start();
  bus.silence("maths");
  const auto began = user.now();
  EXPECT_EQ("no answer: 'maths' does not answer", told(client.call<int>(ADD, 4)));
  EXPECT_EQ(10'000, user.now() - began);
}

TEST_F(kx_calls, before_the_application_starts_nothing_is_sent) {
  server.start();
  EXPECT_EQ("not sent: the application is not on the bus yet", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_calls, after_the_application_has_stopped_nothing_is_sent) {
  start();
  user.stop();
  EXPECT_EQ("not sent: the message could not be sent", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_calls, an_answer_that_is_too_long_leaves_the_request_open_and_so_refused) {
  start();
  EXPECT_EQ("refused: the service has not answered it", told(client.call<int>(LONG)));
  EXPECT_EQ("too long: the answer does not fit into a message, open", happened);
}

TEST_F(kx_calls, a_refusal_that_is_too_long_is_cut) {
  service.on(9, [](kx::request& asked) { asked.refuse(std::string(5000, 'x')); });
  start();
  EXPECT_EQ(2000u, client.call<int>(9).error().reason.size());
}

TEST_F(kx_calls, several_values_come_as_a_tuple) {
  service.on<int>(9, [](kx::request& asked, int number) { asked.reply(number, "text", true); });
  start();
  EXPECT_EQ(std::tuple(3, std::string("text"), true), (*client.call<int, std::string, bool>(9, 3)));
}

TEST_F(kx_calls, a_later_handler_replaces_an_earlier_one_also_while_that_runs) {
  service.on<int>(ADD, [this](kx::request& asked, int number) {
    service.on<int>(ADD, [](kx::request& again, int) { again.reply(-1); });
    asked.reply(number);
  });
  start();
  EXPECT_EQ("4", told(client.call<int>(ADD, 4)));
  EXPECT_EQ("-1", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_calls, a_request_that_was_kept_is_answered_later) {
  start();
  client.async<int>(LATER).then(noting());
  bus.settle();
  EXPECT_EQ("", happened);
  kept.at(0).reply(8);
  bus.settle();
  EXPECT_EQ("8 ", happened);
}

TEST_F(kx_calls, a_request_is_answered_once) {
  start();
  client.async<int>(LATER).then(noting());
  bus.settle();
  kept.at(0).reply(8);
  EXPECT_EQ("not sent: there is nothing to answer", told(kept.at(0).reply(9)));
  kept.clear();
  bus.settle();
  EXPECT_EQ("8 ", happened);
  EXPECT_EQ(0u, client.late());
}

TEST_F(kx_calls, a_request_of_which_another_takes_the_place_is_refused) {
  start();
  client.async<int>(LATER).then(noting());
  client.async<int>(LATER).then(noting());
  bus.settle();
  kept.at(0) = std::move(kept.at(1));
  kept.pop_back();
  bus.settle();
  EXPECT_EQ("refused: the service has not answered it ", happened);
}

TEST_F(kx_calls, requests_of_a_service_that_has_gone_are_refused_by_the_core) {
  start();
  client.async<int>(LATER).then(noting());
  bus.settle();
  { const kx::service gone = std::move(service); }
  bus.settle();
  EXPECT_EQ("refused: the service is withdrawn ", happened);
}

TEST_F(kx_calls, an_answer_for_a_service_that_has_gone_goes_nowhere) {
  start();
  client.async<int>(LATER).then(noting());
  bus.settle();
  { const kx::service gone = std::move(service); }
  EXPECT_EQ("not sent: it has left the bus", told(kept.at(0).reply(1)));
}

TEST_F(kx_calls, a_service_may_be_destroyed_by_its_own_handler) {
  auto made = std::make_unique<kx::service>(server, "brief");
  made->on(1, [&](kx::request& asked) {
    made.reset();
    asked.reply(1);
  });
  start();
  EXPECT_EQ("refused: the service is withdrawn", told(kx::client(user, "brief").call<int>(1)));
}

TEST_F(kx_calls, a_one_way_message_has_nothing_to_answer) {
  start();
  client.send(TELL, 5);
  bus.settle();
  EXPECT_EQ("5 ", happened);
}

TEST_F(kx_calls, a_request_can_be_answered) {
  start();
  client.async<int>(TELL, 5).then(noting());
  bus.settle();
  EXPECT_EQ("5 open refused: the service has not answered it ", happened);
}

TEST_F(kx_calls, a_one_way_message_that_does_not_fit_the_handler_is_dropped) {
  start();
  client.send(TELL, "five");
  bus.settle();
  EXPECT_EQ("", happened);
}

TEST_F(kx_calls, a_one_way_message_says_when_it_is_not_sent) {
  start();
  EXPECT_EQ("too long: the arguments do not fit into a message",
            told(client.send(TELL, std::string(3000, 'x'))));
}

TEST_F(kx_calls, an_answer_has_the_command_and_the_id_of_its_request) {
  struct : kx::receiver {
    void receive(KXmessage& message) override { answer = message; }
    KXmessage answer;
  } plain;
  start();
  const auto link = user.use("maths", kx::kind::function, plain);
  KXmessage request;
  request.m_header->msg_type = MSG_REQ;
  request.m_header->cmd = ADD;
  (*link)->send(request);
  bus.settle();
  EXPECT_EQ(ADD, plain.answer.m_header->cmd);
  EXPECT_EQ(request.m_header->msg_id, plain.answer.m_header->msg_id);
}

// --- asynchronous calls ---

TEST_F(kx_calls, answers_find_their_requests_in_any_order) {
  start();
  for (int i = 0; i < 3; ++i)
    client.async<int>(LATER).then([this, i](const kx::result<int>& outcome) {
      happened += std::to_string(i) + ":" + told(outcome) + " ";
    });
  bus.settle();
  for (const std::size_t i : {1u, 0u, 2u})
    kept.at(i).reply(static_cast<int>(i));
  bus.settle();
  EXPECT_EQ("1:1 0:0 2:2 ", happened);
}

TEST_F(kx_calls, each_request_has_its_own_deadline) {
  start();
  for (const int limit : {300, 100, 200})
    client.async<int>(LATER).within(std::chrono::milliseconds(limit)).then([=](const kx::result<int>&) {
      happened += std::to_string(limit) + "@" + std::to_string(user.now()) + " ";
    });
  bus.advance(1000ms);
  EXPECT_EQ("100@100 200@200 300@300 ", happened);
}

TEST_F(kx_calls, a_request_has_ten_seconds_unless_it_is_said) {
  start();
  client.async<int>(LATER).then(noting());
  bus.advance(9999ms);
  EXPECT_EQ("", happened);
  bus.advance(1ms);
  EXPECT_EQ("no answer: 'maths' does not answer ", happened);
}

TEST_F(kx_calls, a_deadline_may_be_farther_than_a_timer_of_the_loop_reaches) {
  start();
  client.async<int>(LATER).within(1'000'000ms).then(noting());
  bus.advance(999'999ms);
  EXPECT_EQ("", happened);
  bus.advance(1ms);
  EXPECT_EQ("no answer: 'maths' does not answer ", happened);
}

TEST_F(kx_calls, a_deadline_without_end_is_far_away) {
  start();
  client.async<int>(LATER).within(std::chrono::milliseconds::max()).then(noting());
  bus.advance(1h);
  kept.at(0).reply(1);
  bus.settle();
  EXPECT_EQ("1 ", happened);
}

TEST_F(kx_calls, an_answer_at_the_last_moment_counts) {
  start();
  bus.delay("maths", 99ms);
  client.async<int>(ADD, 1).within(100ms).then(noting());
  bus.advance(1000ms);
  EXPECT_EQ("2 ", happened);
}

TEST_F(kx_calls, an_answer_after_the_deadline_is_dropped_and_counted) {
  start();
  bus.delay("maths", 101ms);
  client.async<int>(ADD, 1).within(100ms).then(noting());
  bus.advance(1000ms);
  EXPECT_EQ("no answer: 'maths' does not answer ", happened);
  EXPECT_EQ(1u, client.late());
}

TEST_F(kx_calls, what_cannot_be_sent_is_told_from_the_loop) {
  start();
  kx::client nobody(user, "nobody");
  nobody.async<int>(ADD, 1).then(noting());
  EXPECT_EQ("", happened);
  bus.settle();
  EXPECT_EQ("no service: nobody offers 'nobody' ", happened);
}

TEST_F(kx_calls, what_does_not_fit_into_a_message_is_not_sent) {
  start();
  client.async<int>(LATER, std::string(3000, 'x')).then(noting());
  bus.settle();
  EXPECT_EQ("too long: the arguments do not fit into a message ", happened);
  EXPECT_EQ(0u, kept.size());
}

TEST_F(kx_calls, so_many_requests_are_under_way_as_there_are_ids) {
  start();
  bus.silence("maths");
  for (int i = 0; i < 4095; ++i)
    client.async<int>(LATER).then([](const kx::result<int>&) {});
  client.async<int>(LATER).then(noting());
  bus.settle();
  EXPECT_EQ("not sent: too many requests are under way ", happened);
}

TEST_F(kx_calls, a_handler_may_own_what_can_only_be_moved) {
  kx::service relay(server, "relay");
  kx::client inner(server, "maths");
  relay.on<int>(ADD, [&](kx::request& asked, int number) {
    inner.async<int>(ADD, number).then([held = std::move(asked)](const kx::result<int>& outcome) mutable {
      held.reply(*outcome);
    });
  });
  start();
  EXPECT_EQ("8", told(kx::client(user, "relay").call<int>(ADD, 7)));
}

TEST_F(kx_calls, a_handler_may_be_larger_than_the_room_for_small_ones) {
  start();
  std::array<int, 100> numbers{};
  numbers[99] = 3;
  client.async<int>(ADD, 1).then(
      [=](const kx::result<int>& outcome) { happened = std::to_string(*outcome + numbers[99]); });
  bus.settle();
  EXPECT_EQ("5", happened);
}

TEST_F(kx_calls, what_a_handler_owns_goes_with_it) {
  const auto owned = std::make_shared<int>(0);
  start();
  client.async<int>(ADD, 1).then([owned](const kx::result<int>&) {});
  bus.settle();
  EXPECT_EQ(1, owned.use_count());
}

TEST_F(kx_calls, the_handlers_of_a_client_that_has_gone_do_not_run) {
  {
    kx::client brief(user, "maths");
    start();
    brief.async<int>(ADD, 1).then(noting());
  }
  bus.advance(20'000ms);
  EXPECT_EQ("", happened);
}

TEST_F(kx_calls, a_client_may_be_destroyed_by_the_handler_of_its_answer) {
  auto brief = std::make_unique<kx::client>(user, "maths");
  start();
  for (int i = 0; i < 2; ++i)
    brief->async<int>(ADD, i).then([&](const kx::result<int>&) {
      happened += "x";
      brief.reset();
    });
  bus.advance(20'000ms);
  EXPECT_EQ("x", happened);
}

TEST_F(kx_calls, a_client_may_be_destroyed_by_the_handler_of_a_deadline) {
  auto brief = std::make_unique<kx::client>(user, "maths");
  start();
  for (int i = 0; i < 2; ++i)
    brief->async<int>(LATER).then([&](const kx::result<int>&) {
      happened += "x";
      brief.reset();
    });
  bus.advance(20'000ms);
  EXPECT_EQ("x", happened);
}

TEST_F(kx_calls, a_handler_may_call_again) {
  start();
  client.async<int>(ADD, 1).then(
      [this](const kx::result<int>&) { happened = told(client.call<int>(ADD, 8)); });
  bus.settle();
  EXPECT_EQ("9", happened);
}

TEST_F(kx_calls, calls_allocate_nothing_once_there_have_been_as_many) {
  start();
  const auto ask = [this] {
    client.async<int>(ADD, 1).then(
        [this](const kx::result<int>& outcome) { happened.resize(static_cast<std::size_t>(*outcome)); });
    bus.settle();
    static_cast<void>(client.call<int>(ADD, 1));
  };
  ask();
  const long before = seam::allocated_blocks();
  ask();
  EXPECT_EQ(before, seam::allocated_blocks());
}

// --- signals ---

struct kx_signals : kx_bus {
  auto hearing(const std::string& who) {
    return [this, who](int number) { happened += who + std::to_string(number) + " "; };
  }
  kx::emitter<int> tick{server, "tick", 3};
};

TEST_F(kx_signals, reach_all_who_listen) {
  kx::listener<int> a(user, "tick", hearing("a"));
  kx::listener<int> b(user, "tick", hearing("b"));
  kx::listener<int> c(server, "tick", hearing("c"));
  start();
  tick.emit(1);
  bus.settle();
  std::vector<std::string> heard;
  std::istringstream words(happened);
  for (std::string each; words >> each;)
    heard.push_back(each);
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ((std::vector<std::string>{"a1", "b1", "c1"}), heard);
}

TEST_F(kx_signals, reach_those_who_listen_for_their_command) {
  kx::listener<int> other(user, "tick", 4, hearing("4:"));
  kx::listener<int> own(user, "tick", 3, hearing("3:"));
  start();
  tick.emit(1);
  bus.settle();
  EXPECT_EQ("3:1 ", happened);
}

TEST_F(kx_signals, with_other_values_are_dropped_and_counted) {
  kx::listener<std::string> other(user, "tick", [this](const std::string&) { happened += "heard"; });
  start();
  tick.emit(1);
  bus.settle();
  EXPECT_EQ("", happened);
  EXPECT_EQ(1u, other.unreadable());
}

TEST_F(kx_signals, that_are_lost_are_lost_and_no_others) {
  kx::listener<int> a(user, "tick", hearing(""));
  start();
  bus.lose_signals("tick");
  for (const int number : {1, 2})
    tick.emit(number);
  bus.settle();
  EXPECT_EQ("2 ", happened);
}

TEST_F(kx_signals, say_when_they_cannot_be_sent) {
  kx::emitter<std::string> text(server, "text");
  EXPECT_EQ("not sent: the application is not on the bus yet", told(tick.emit(1)));
  start();
  EXPECT_EQ("too long: the values do not fit into a message", told(text.emit(std::string(3000, 'x'))));
}

TEST_F(kx_signals, are_heard_no_more_by_one_that_has_gone_in_its_own_handler) {
  std::unique_ptr<kx::listener<int>> brief;
  brief = std::make_unique<kx::listener<int>>(user, "tick", [&](int number) {
    brief.reset();
    happened += std::to_string(number);
  });
  start();
  for (const int number : {1, 2})
    tick.emit(number);
  bus.settle();
  EXPECT_EQ("1", happened);
}

// --- timers and descriptors ---

struct kx_loop : kx_bus {
  void SetUp() override {
    kx_bus::SetUp();
    start();
  }
  auto noting_time() {
    return [this] { happened += std::to_string(user.now()) + " "; };
  }
};

TEST_F(kx_loop, a_timer_repeats_until_it_is_stopped) {
  kx::timer timer(user, noting_time());
  timer.every(100ms);
  bus.advance(250ms);
  timer.stop();
  bus.advance(250ms);
  EXPECT_EQ("100 200 ", happened);
}

TEST_F(kx_loop, a_timer_that_is_to_run_once_does) {
  kx::timer timer(user, noting_time());
  timer.once(100ms);
  EXPECT_TRUE(timer.runs());
  bus.advance(250ms);
  EXPECT_FALSE(timer.runs());
  EXPECT_EQ("100 ", happened);
}

TEST_F(kx_loop, a_timer_that_is_started_again_begins_anew) {
  kx::timer timer(user, noting_time());
  timer.once(100ms);
  bus.advance(50ms);
  timer.once(100ms);
  bus.advance(250ms);
  EXPECT_EQ("150 ", happened);
}

TEST_F(kx_loop, a_timer_runs_after_fifteen_minutes_at_most) {
  for (const std::chrono::milliseconds period : {-1ms, 900'001ms, std::chrono::milliseconds::max()}) {
    const auto began = user.now();
    kx::timer timer(user, [&] { happened += std::to_string(user.now() - began) + " "; });
    timer.once(period);
    bus.advance(2'000s);
  }
  EXPECT_EQ("900000 900000 900000 ", happened);
}

TEST_F(kx_loop, a_timer_ends_with_its_owner) {
  kx::timer(user, noting_time()).every(100ms);
  bus.advance(250ms);
  EXPECT_EQ("", happened);
}

TEST_F(kx_loop, the_handler_of_a_timer_may_do_anything_to_it) {
  struct {
    const char* what;
    std::function<void(std::unique_ptr<kx::timer>&)> act;
    std::string expected;
  } const rows[] = {
      {"destroy", [](auto& timer) { timer.reset(); }, "x"},
      {"stop", [](auto& timer) { timer->stop(); }, "x"},
      {"once", [](auto& timer) { timer->once(150ms); }, "xx"},
      {"restart", [](auto& timer) { timer->every(50ms); }, "xxxxxx"},
      {"stop and start", [](auto& timer) { timer->stop(), timer->every(50ms); }, "xxxxxx"},
      {"nothing", [](auto&) {}, "xxx"},
  };
  for (const auto& each : rows) {
    happened.clear();
    std::unique_ptr<kx::timer> timer;
    timer = std::make_unique<kx::timer>(user, [&] {
      happened += "x";
      each.act(timer);
    });
    timer->every(100ms);
    bus.advance(350ms);
    EXPECT_EQ(each.expected, happened) << each.what;
  }
}

TEST_F(kx_loop, a_descriptor_is_served_until_its_owner_goes) {
  auto watched = std::make_unique<kx::descriptor>(user, 7, [this] { happened += "x"; });
  user.serve(7);
  watched.reset();
  user.serve(7);
  EXPECT_EQ("x", happened);
}

TEST_F(kx_loop, a_descriptor_may_go_in_its_own_handler) {
  std::unique_ptr<kx::descriptor> watched;
  watched = std::make_unique<kx::descriptor>(user, 7, [&] {
    watched.reset();
    happened += "x";
  });
  user.serve(7);
  user.serve(7);
  EXPECT_EQ("x", happened);
}

TEST_F(kx_loop, a_descriptor_that_cannot_be_watched_says_so) {
  EXPECT_FALSE(kx::descriptor(user, -1, [] {}).is_watched());
}

}  // namespace
