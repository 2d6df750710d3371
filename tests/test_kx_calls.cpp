// Services, clients, signals and the loop of the layer kx, on the bus of the test.
#include "kx_test.h"
#include "seam.h"

namespace {

const std::string too_much(3000, 'x');

const scene calls[] = {
    {"an_answer_is_the_value_of_the_call", "5; ", [](kx_bus& at) { at.note(at.client.call<int>(ADD, 4)); }},
    {"a_service_that_does_not_answer_is_waited_for_ten_seconds",
     "no answer: 'maths' does not answer; 10000; ",
     [](kx_bus& at) {
       at.bus.silence("maths");
       at.note(at.client.call<int>(ADD, 4));
       at.note(std::to_string(at.user.now()));
     }},
    {"after_the_application_has_stopped_nothing_is_sent", "not sent: the message could not be sent; ",
     [](kx_bus& at) {
       at.user.stop();
       at.note(at.client.call<int>(ADD, 4));
     }},
    {"an_answer_that_is_too_long_leaves_the_request_open_and_so_refused",
     "too long: the answer does not fit into a message; open; refused: the service has not answered it; ",
     [](kx_bus& at) { at.note(at.client.call<int>(LONG)); }},
    {"a_refusal_that_is_too_long_is_cut", "2000; ",
     [](kx_bus& at) {
       at.service.on(9, [](kx::request& asked) { asked.refuse(too_much); });
       at.note(std::to_string(at.client.call<int>(9).error().reason.size()));
     }},
    {"several_values_come_as_a_tuple", "3text; ",
     [](kx_bus& at) {
       at.service.on<int>(9, [](kx::request& asked, int number) { asked.reply(number, "text", true); });
       const auto [number, text, truth] = *at.client.call<int, std::string, bool>(9, 3);
       at.note(truth ? std::to_string(number) + text : "");
     }},
    {"a_later_handler_replaces_an_earlier_one_also_while_that_runs", "4; -1; ",
     [](kx_bus& at) {
       at.service.on<int>(ADD, [&at](kx::request& asked, int number) {
         at.service.on<int>(ADD, [](kx::request& again, int) { again.reply(-1); });
         asked.reply(number);
       });
       for (int i = 0; i < 2; ++i)
         at.note(at.client.call<int>(ADD, 4));
     }},
    {"a_request_that_was_kept_is_answered_later", "later; 8; ",
     [](kx_bus& at) {
       at.ask(LATER);
       at.note("later");
       at.kept.at(0).reply(8);
     }},
    {"a_request_is_answered_once", "not sent: there is nothing to answer; 8; ",
     [](kx_bus& at) {
       at.ask(LATER);
       at.kept.at(0).reply(8);
       at.note(at.kept.at(0).reply(9));
       at.kept.clear();
       at.bus.settle();
       EXPECT_EQ(0u, at.client.late());
     }},
    {"a_request_of_which_another_takes_the_place_is_refused", "refused: the service has not answered it; ",
     [](kx_bus& at) {
       at.ask(LATER);
       at.ask(LATER);
       at.kept.at(0) = std::move(at.kept.at(1));
       at.kept.pop_back();
     }},
    {"requests_of_a_service_that_has_gone_are_refused_by_the_core", "refused: the service is withdrawn; ",
     [](kx_bus& at) {
       at.ask(LATER);
       const kx::service gone = std::move(at.service);
     }},
    {"an_answer_for_a_service_that_has_gone_goes_nowhere",
     "not sent: it has left the bus; refused: the service is withdrawn; ",
     [](kx_bus& at) {
       at.ask(LATER);
       { const kx::service gone = std::move(at.service); }
       at.note(at.kept.at(0).reply(1));
     }},
    {"a_service_may_be_destroyed_by_its_own_handler", "refused: the service is withdrawn; ",
     [](kx_bus& at) {
       auto made = std::make_unique<kx::service>(at.server, "brief");
       made->on(1, [&](kx::request& asked) {
         made.reset();
         asked.reply(1);
       });
       at.note(kx::client(at.user, "brief").call<int>(1));
     }},
    {"a_one_way_message_has_nothing_to_answer", "5; ", [](kx_bus& at) { at.client.send(TELL, 5); }},
    {"a_request_can_be_answered", "5 open; refused: the service has not answered it; ",
     [](kx_bus& at) { at.note(at.client.call<int>(TELL, 5)); }},
    {"a_one_way_message_that_does_not_fit_the_handler_is_dropped", "",
     [](kx_bus& at) { at.client.send(TELL, "five"); }},
    {"a_one_way_message_says_when_it_is_not_sent", "too long: the arguments do not fit into a message; ",
     [](kx_bus& at) { at.note(at.client.send(TELL, too_much)); }},
};
const bool added_calls = add_scenes("kx_calls", __FILE__, calls);

using kx_calls_besides = kx_bus;

TEST_F(kx_calls_besides, tell_each_error) {
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
      {"too long: the arguments do not fit into a message", told(client.call<int>(ADD, too_much))},
      {"not sent: 'maths' is the application's own: only an asynchronous call reaches it",
       told(own.call<int>(ADD, 4))},
  };
  for (const auto& each : rows)
    EXPECT_EQ(each.expected, each.outcome);
}

TEST_F(kx_calls_besides, send_nothing_before_the_application_starts) {
  server.start();
  EXPECT_EQ("not sent: the application is not on the bus yet", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_calls_besides, have_answers_with_the_command_and_the_id_of_the_request) {
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

TEST_F(kx_calls_besides, allocate_nothing_once_there_have_been_as_many) {
  start();
  const auto ask_twice = [this] {
    client.async<int>(ADD, 1).then(
        [this](const kx::result<int>& outcome) { happened.resize(static_cast<std::size_t>(*outcome)); });
    bus.settle();
    static_cast<void>(client.call<int>(ADD, 1));
  };
  ask_twice();
  const long before = seam::allocated_blocks();
  ask_twice();
  EXPECT_EQ(before, seam::allocated_blocks());
}

// --- asynchronous calls ---

// Asks for an answer that comes `late` after 100 ms.
void ask_with_delay(kx_bus& at, std::chrono::milliseconds late) {
  at.bus.delay("maths", 100ms + late);
  at.client.async<int>(ADD, 1).within(100ms).then([&at](const kx::result<int>& sum) { at.note(sum); });
  at.bus.advance(1000ms);
  at.note(std::to_string(at.client.late()) + " late");
}

// Asks for an answer that does not come until after this time.
void ask_in_vain(kx_bus& at, kx::async_call<int> asked, std::chrono::milliseconds limit) {
  std::move(asked).then([&at](const kx::result<int>& outcome) { at.note(outcome); });
  at.bus.advance(limit - 1ms);
  at.note("not yet");
  at.bus.advance(1ms);
}

// A client that is destroyed by the first of two handlers.
void destroy_in_handler(kx_bus& at, int command, std::chrono::milliseconds time) {
  auto brief = std::make_unique<kx::client>(at.user, "maths");
  for (int i = 0; i < 2; ++i)
    brief->async<int>(command).then([&](const kx::result<int>&) {
      at.note("x");
      brief.reset();
    });
  at.bus.advance(time);
}

const scene later_calls[] = {
    {"answers_find_their_requests_in_any_order", "1: 1; 0: 0; 2: 2; ",
     [](kx_bus& at) {
       for (int i = 0; i < 3; ++i)
         at.client.async<int>(LATER).then(
             [&at, i](const kx::result<int>& outcome) { at.note(std::to_string(i) + ": " + told(outcome)); });
       at.bus.settle();
       for (const std::size_t i : {1u, 0u, 2u})
         at.kept.at(i).reply(static_cast<int>(i));
     }},
    {"each_request_has_its_own_deadline", "100 at 100; 200 at 200; 300 at 300; ",
     [](kx_bus& at) {
       for (const int limit : {300, 100, 200})
         at.client.async<int>(LATER).within(std::chrono::milliseconds(limit)).then([&at, limit](const auto&) {
           at.note(std::to_string(limit) + " at " + std::to_string(at.user.now()));
         });
       at.bus.advance(1000ms);
     }},
    {"a_request_has_ten_seconds_unless_it_is_said", "not yet; no answer: 'maths' does not answer; ",
     [](kx_bus& at) { ask_in_vain(at, at.client.async<int>(LATER), 10s); }},
    {"a_deadline_may_be_farther_than_a_timer_of_the_loop_reaches",
     "not yet; no answer: 'maths' does not answer; ",
     [](kx_bus& at) { ask_in_vain(at, at.client.async<int>(LATER).within(1000s), 1000s); }},
    {"a_deadline_without_end_is_far_away", "not yet; 1; ",
     [](kx_bus& at) {
       ask_in_vain(at, at.client.async<int>(LATER).within(std::chrono::milliseconds::max()), 1h);
       at.kept.at(0).reply(1);
     }},
    {"an_answer_at_the_last_moment_counts", "2; 0 late; ", [](kx_bus& at) { ask_with_delay(at, -1ms); }},
    {"an_answer_after_the_deadline_is_dropped_and_counted", "no answer: 'maths' does not answer; 1 late; ",
     [](kx_bus& at) { ask_with_delay(at, 1ms); }},
    {"what_cannot_be_sent_is_told_from_the_loop", "asked; no service: nobody offers 'nobody'; ",
     [](kx_bus& at) {
       kx::client nobody(at.user, "nobody");
       nobody.async<int>(ADD, 1).then([&at](const kx::result<int>& outcome) { at.note(outcome); });
       at.note("asked");
       at.bus.settle();
     }},
    {"what_does_not_fit_into_a_message_is_not_sent",
     "0 arrived; too long: the arguments do not fit into a message; ",
     [](kx_bus& at) {
       at.client.async<int>(LATER, too_much).then([&at](const kx::result<int>& outcome) {
         at.note(std::to_string(at.kept.size()) + " arrived");
         at.note(outcome);
       });
     }},
    {"so_many_requests_are_under_way_as_there_are_ids", "not sent: too many requests are under way; ",
     [](kx_bus& at) {
       at.bus.silence("maths");
       for (int i = 0; i < 4095; ++i)
         at.client.async<int>(LATER).then([](const kx::result<int>&) {});
       at.ask(LATER);
     }},
    {"a_handler_may_own_what_can_only_be_moved", "8; ",
     [](kx_bus& at) {
       kx::service relay(at.server, "relay");
       kx::client inner(at.server, "maths");
       relay.on<int>(ADD, [&](kx::request& asked, int number) {
         inner.async<int>(ADD, number).then([held = std::move(asked)](const kx::result<int>& sum) mutable {
           held.reply(*sum);
         });
       });
       at.note(kx::client(at.user, "relay").call<int>(ADD, 7));
     }},
    {"a_handler_may_be_larger_than_the_room_for_small_ones", "5; ",
     [](kx_bus& at) {
       std::array<int, 100> numbers{};
       numbers[99] = 3;
       at.client.async<int>(ADD, 1).then(
           [&at, numbers](const kx::result<int>& sum) { at.note(std::to_string(*sum + numbers[99])); });
     }},
    {"what_a_handler_owns_goes_with_it", "1; ",
     [](kx_bus& at) {
       const auto owned = std::make_shared<int>(0);
       at.client.async<int>(ADD, 1).then([owned](const kx::result<int>&) {});
       at.bus.settle();
       at.note(std::to_string(owned.use_count()));
     }},
    {"the_handlers_of_a_client_that_has_gone_do_not_run", "",
     [](kx_bus& at) {
       kx::client(at.user, "maths").async<int>(ADD, 1).then([&at](const auto&) { at.note("x"); });
       at.bus.advance(20s);
     }},
    {"a_client_may_be_destroyed_by_the_handler_of_its_answer", "x; ",
     [](kx_bus& at) { destroy_in_handler(at, SILENT, 0s); }},
    {"a_client_may_be_destroyed_by_the_handler_of_a_deadline", "x; ",
     [](kx_bus& at) { destroy_in_handler(at, LATER, 20s); }},
    {"a_handler_may_call_again", "9; ",
     [](kx_bus& at) {
       at.client.async<int>(ADD, 1).then([&at](const auto&) { at.note(at.client.call<int>(ADD, 8)); });
     }},
};
const bool added_later_calls = add_scenes("kx_later_calls", __FILE__, later_calls);

// --- signals ---

// Notes what it hears.
auto noting(kx_bus& at, const std::string& who = "") {
  return [&at, who](int number) { at.note(who + std::to_string(number)); };
}

const scene signals[] = {
    {"reach_all_who_listen", "c1; a1; b1; ",
     [](kx_bus& at) {
       kx::emitter<int> tick(at.server, "tick");
       const kx::listener<int> a(at.user, "tick", noting(at, "a"));
       const kx::listener<int> b(at.user, "tick", noting(at, "b"));
       const kx::listener<int> c(at.server, "tick", noting(at, "c"));
       tick.emit(1);
       at.bus.settle();
     }},
    {"reach_those_who_listen_for_their_command", "3: 1; ",
     [](kx_bus& at) {
       kx::emitter<int> tick(at.server, "tick", 3);
       const kx::listener<int> other(at.user, "tick", 4, noting(at, "4: "));
       const kx::listener<int> own(at.user, "tick", 3, noting(at, "3: "));
       tick.emit(1);
       at.bus.settle();
     }},
    {"with_other_values_are_dropped_and_counted", "1 unreadable; ",
     [](kx_bus& at) {
       kx::emitter<int> tick(at.server, "tick");
       const kx::listener<std::string> other(at.user, "tick",
                                             [&at](const std::string&) { at.note("heard"); });
       tick.emit(1);
       at.bus.settle();
       at.note(std::to_string(other.unreadable()) + " unreadable");
     }},
    {"that_are_lost_are_lost_and_no_others", "2; ",
     [](kx_bus& at) {
       kx::emitter<int> tick(at.server, "tick");
       const kx::listener<int> listener(at.user, "tick", noting(at));
       at.bus.lose_signals("tick");
       for (const int number : {1, 2})
         tick.emit(number);
       at.bus.settle();
     }},
    {"say_when_they_cannot_be_sent",
     "too long: the values do not fit into a message; not sent: the application is not on the bus yet; ",
     [](kx_bus& at) {
       at.note(kx::emitter<std::string>(at.server, "text").emit(too_much));
       kx::testing::app unborn(at.bus, "unborn");
       at.note(kx::emitter<int>(unborn, "tick").emit(1));
     }},
    {"are_heard_no_more_by_one_that_has_gone_in_its_own_handler", "1; ",
     [](kx_bus& at) {
       kx::emitter<int> tick(at.server, "tick");
       std::unique_ptr<kx::listener<int>> brief;
       brief = std::make_unique<kx::listener<int>>(at.user, "tick", [&](int number) {
         brief.reset();
         at.note(std::to_string(number));
       });
       for (const int number : {1, 2})
         tick.emit(number);
       at.bus.settle();
     }},
};
const bool added_signals = add_scenes("kx_signals", __FILE__, signals);

// --- timers and descriptors ---

auto noting_time(kx_bus& at) {
  return [&at] { at.note(std::to_string(at.user.now())); };
}

// What a timer of 100 ms does in 350 ms that its handler does something to.
void act_in_timer(kx_bus& at, void (*act)(std::unique_ptr<kx::timer>&)) {
  std::unique_ptr<kx::timer> timer;
  const auto handle = [&] {
    noting_time(at)();
    act(timer);
  };
  timer = std::make_unique<kx::timer>(at.user, handle);
  timer->every(100ms);
  at.bus.advance(350ms);
}

const scene loops[] = {
    {"a_timer_repeats_until_it_is_stopped", "100; 200; ",
     [](kx_bus& at) {
       kx::timer timer(at.user, noting_time(at));
       timer.every(100ms);
       at.bus.advance(250ms);
       timer.stop();
       at.bus.advance(250ms);
     }},
    {"a_timer_that_is_to_run_once_does", "runs; 100; ",
     [](kx_bus& at) {
       kx::timer timer(at.user, noting_time(at));
       timer.once(100ms);
       at.note(timer.runs() ? "runs" : "does not run");
       at.bus.advance(250ms);
       EXPECT_FALSE(timer.runs());
     }},
    {"a_timer_that_is_started_again_begins_anew", "150; ",
     [](kx_bus& at) {
       kx::timer timer(at.user, noting_time(at));
       timer.once(100ms);
       at.bus.advance(50ms);
       timer.once(100ms);
       at.bus.advance(250ms);
     }},
    {"a_timer_runs_after_fifteen_minutes_at_most", "900000; 900000; 900000; ",
     [](kx_bus& at) {
       for (const std::chrono::milliseconds period : {-1ms, 900'001ms, std::chrono::milliseconds::max()}) {
         const auto began = at.user.now();
         kx::timer timer(at.user, [&] { at.note(std::to_string(at.user.now() - began)); });
         timer.once(period);
         at.bus.advance(2000s);
       }
     }},
    {"a_timer_ends_with_its_owner", "",
     [](kx_bus& at) {
       kx::timer(at.user, noting_time(at)).every(100ms);
       at.bus.advance(250ms);
     }},
    {"a_timer_may_do_nothing_to_itself", "100; 200; 300; ",
     [](kx_bus& at) { act_in_timer(at, [](auto&) {}); }},
    {"a_timer_may_destroy_itself", "100; ",
     [](kx_bus& at) { act_in_timer(at, [](auto& timer) { timer.reset(); }); }},
    {"a_timer_may_stop_itself", "100; ",
     [](kx_bus& at) { act_in_timer(at, [](auto& timer) { timer->stop(); }); }},
    {"a_timer_may_start_itself_once", "100; 250; ",
     [](kx_bus& at) { act_in_timer(at, [](auto& timer) { timer->once(150ms); }); }},
    {"a_timer_may_start_itself_with_another_period", "100; 150; 200; 250; 300; 350; ",
     [](kx_bus& at) { act_in_timer(at, [](auto& timer) { timer->every(50ms); }); }},
    {"a_timer_may_stop_and_start_itself", "100; 150; 200; 250; 300; 350; ",
     [](kx_bus& at) { act_in_timer(at, [](auto& timer) { timer->stop(), timer->every(50ms); }); }},
    {"a_descriptor_is_served_until_its_owner_goes", "x; ",
     [](kx_bus& at) {
       auto watched = std::make_unique<kx::descriptor>(at.user, 7, [&at] { at.note("x"); });
       at.user.serve(7);
       watched.reset();
       at.user.serve(7);
     }},
    {"a_descriptor_may_go_in_its_own_handler", "x; ",
     [](kx_bus& at) {
       std::unique_ptr<kx::descriptor> watched;
       watched = std::make_unique<kx::descriptor>(at.user, 7, [&] {
         watched.reset();
         at.note("x");
       });
       at.user.serve(7);
       at.user.serve(7);
     }},
    {"a_descriptor_that_cannot_be_watched_says_so", "",
     [](kx_bus& at) { EXPECT_FALSE(kx::descriptor(at.user, -1, [] {}).is_watched()); }},
};
const bool added_loops = add_scenes("kx_loop", __FILE__, loops);

}  // namespace
