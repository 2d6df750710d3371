// How the objects of the layer kx come and go: with their services, their applications and the core.
#include <optional>

#include "kx_test.h"

namespace {

void watch(kx_bus& at, kx::client& watched) {
  watched.on_available([&at] { at.note("available"); });
  watched.on_gone([&at] { at.note("gone"); });
}

// Another process that offers the service of the bus, and answers otherwise.
struct successor {
  successor(kx_bus& at, const char* name) : app(at.bus, name) {
    service.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(-number); });
    service.on(LATER, [&at](kx::request& asked) { at.kept.push_back(std::move(asked)); });
  }
  kx::testing::app app;
  kx::service service{app, "maths"};
};

// What is told of a service that ends.
void end_service(kx_bus& at, void (*end)(kx::testing::app&, std::optional<kx::service>&)) {
  kx::testing::app other(at.bus, "other");
  std::optional<kx::service> ended(std::in_place, other, "brief");
  other.start();
  kx::client watching(at.user, "brief");
  watch(at, watching);
  at.bus.settle();
  end(other, ended);
  at.bus.settle();
}

const scene presence[] = {
    {"what_happens_to_other_services_is_not_told", "",
     [](kx_bus& at) {
       watch(at, at.client);
       const kx::service other(at.server, "other");
     }},
    {"a_client_that_is_made_while_the_application_runs_finds_its_service", "",
     [](kx_bus& at) { EXPECT_TRUE(kx::client(at.user, "maths").is_available()); }},
    {"a_listener_finds_its_signal_when_it_comes", "3; ",
     [](kx_bus& at) {
       kx::listener<int> listener(at.user, "tick", [&](int number) { at.note(std::to_string(number)); });
       kx::emitter<int> tick(at.server, "tick");
       at.bus.settle();
       tick.emit(3);
       at.bus.settle();
     }},
    {"the_end_of_a_service_that_is_destroyed_is_told", "gone; ",
     [](kx_bus& at) { end_service(at, [](auto&, auto& ended) { ended.reset(); }); }},
    {"the_end_of_a_service_whose_application_stops_is_told", "gone; ",
     [](kx_bus& at) { end_service(at, [](auto& app, auto&) { app.stop(); }); }},
    {"the_end_of_a_service_whose_application_crashes_is_told", "gone; ",
     [](kx_bus& at) { end_service(at, [](auto& app, auto&) { app.crash(); }); }},
    {"a_service_that_comes_back_in_another_process_is_used_again", "gone; available; -4; gone; ",
     [](kx_bus& at) {
       watch(at, at.client);
       at.server.crash();
       at.bus.settle();
       successor back(at, "server");
       back.app.start();
       at.bus.settle();
       at.note(at.client.call<int>(ADD, 4));
     }},
    {"a_service_that_its_application_offers_anew_is_used_again", "-4; ",
     [](kx_bus& at) {
       at.client.on_gone([] {});
       { const kx::service gone = std::move(at.service); }
       kx::service anew(at.server, "maths");
       anew.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(-number); });
       at.bus.settle();
       at.note(at.client.call<int>(ADD, 4));
     }},
    {"a_request_under_way_survives_that_its_service_is_told_to_be_offered", "gone; available; 6; gone; ",
     [](kx_bus& at) {
       watch(at, at.client);
       at.server.crash();
       successor back(at, "server");
       back.app.start();
       at.ask(LATER);
       at.kept.at(0).reply(6);
       at.bus.settle();
     }},
    {"a_client_may_be_destroyed_when_its_service_is_gone", "",
     [](kx_bus& at) {
       auto brief = std::make_unique<kx::client>(at.user, "maths");
       brief->on_gone([&] { brief.reset(); });
       at.server.stop();
       at.bus.settle();
       EXPECT_EQ(nullptr, brief);
     }},
    {"what_comes_and_goes_while_news_are_told_keeps_nobody_from_them", "",
     [](kx_bus& at) {
       auto first = std::make_unique<kx::client>(at.user, "maths");
       kx::client second(at.user, "maths");
       const kx::client third(at.user, "maths");
       std::unique_ptr<kx::client> made;
       second.on_gone([&] {
         first.reset();
         made = std::make_unique<kx::client>(at.user, "maths");
       });
       at.server.stop();
       at.bus.settle();
       EXPECT_FALSE(third.is_available());
     }},
    // --- applications ---
    {"an_application_quits_when_what_it_does_is_done", "1; status 42; ",
     [](kx_bus& at) {
       at.service.on<int>(ADD, [&at](kx::request& asked, int number) {
         at.server.quit(number);
         asked.reply(at.server.runs() ? 1 : 0);
       });
       at.note(at.client.call<int>(ADD, 42));
       at.note(at.server.runs() ? "runs" : "status " + std::to_string(at.server.status()));
     }},
    {"a_name_that_is_taken_ends_the_start", "refused: 'maths' is offered by server; ended; ",
     [](kx_bus& at) {
       successor taken(at, "other");
       taken.app.on_closing([&at] { at.note("closing what was not open"); });
       at.note(taken.app.start());
       at.note(taken.app.runs() ? "runs" : "ended");
     }},
    {"a_name_that_is_taken_later_is_told_by_the_service", "refused: 'maths' is offered by server; ",
     [](kx_bus& at) { at.note(kx::service(at.user, "maths").offered()); }},
    {"a_component_that_takes_the_name_of_another_replaces_it", "=; gone; available; gone; ",
     [](kx_bus& at) {
       watch(at, at.client);
       successor back(at, "server");
       at.note(back.app.start());
       at.bus.settle();
     }},
    {"a_process_that_is_killed_closes_nothing", "",
     [](kx_bus& at) {
       at.server.on_closing([&at] { at.note("closing"); });
       at.server.crash();
       at.server.stop();
     }},
    {"objects_may_outlive_their_application",
     "not sent: it has left the bus; not sent: it has left the bus; not sent: it has left the bus; ",
     [](kx_bus& at) {
       std::optional<kx::testing::app> brief(std::in_place, at.bus, "brief");
       kx::service offered(*brief, "brief");
       kx::client used(*brief, "maths");
       kx::emitter<int> signal(*brief, "signal");
       kx::listener<int> listener(*brief, "tick", [](int) {});
       kx::timer timer(*brief, [] {});
       kx::descriptor watched(*brief, 7, [] {});
       brief->start();
       brief.reset();
       timer.every(1ms);
       at.bus.advance(10ms);
       at.note(used.call<int>(ADD, 4));
       at.note(signal.emit(4));
       at.note(offered.offered());
     }},
    // --- faults of the bus ---
    {"a_component_that_does_not_read_is_told_to_who_asks_it",
     "refused: the component does not read, its queue is full; 5; ",
     [](kx_bus& at) {
       for (const bool is_full : {true, false}) {
         at.bus.fill_queue("maths", is_full);
         at.note(at.client.call<int>(ADD, 4));
       }
     }},
    {"a_core_that_was_restarted_knows_nobody", "refused: the sender is not registered; ",
     [](kx_bus& at) {
       at.bus.restart_core();
       at.note(at.client.call<int>(ADD, 4));
     }},
    {"a_service_that_was_silent_answers_again", "5; ",
     [](kx_bus& at) {
       at.bus.silence("maths");
       at.bus.silence("maths", false);
       at.note(at.client.call<int>(ADD, 4));
     }},
    {"two_that_call_each_other_wait_until_both_give_up", "no answer: 'back' does not answer; ",
     [](kx_bus& at) {
       kx::service back(at.user, "back");
       kx::client calling_back(at.server, "back");
       at.service.on(9, [&](kx::request& asked) {
         at.note(calling_back.call<int>(1));
         asked.reply(1);
       });
       static_cast<void>(at.client.call<int>(9));
     }},
};
const bool added_presence = add_scenes("kx_presence", __FILE__, presence);

// --- the start ---

using kx_start_of = kx_bus;

TEST_F(kx_start_of, a_client_finds_a_service_that_is_there) {
  watch(*this, client);
  start();
  EXPECT_EQ("available; ", happened);
}

TEST_F(kx_start_of, a_service_that_comes_later_is_found) {
  watch(*this, client);
  user.start();
  EXPECT_EQ("", happened);
  server.start();
  bus.settle();
  note(client.call<int>(ADD, 4));
  EXPECT_EQ("available; 5; ", happened);
}

TEST_F(kx_start_of, a_client_that_nobody_asks_finds_its_service_too) {
  user.start();
  server.start();
  bus.settle();
  EXPECT_TRUE(client.is_available());
}

TEST_F(kx_start_of, without_events_a_service_is_looked_for_each_second) {
  bus.without_events();
  watch(*this, client);
  user.start();
  server.start();
  bus.advance(999ms);
  EXPECT_EQ("", happened);
  bus.advance(1ms);
  EXPECT_EQ("available; ", happened);
}

TEST_F(kx_start_of, without_events_what_is_missing_later_is_looked_for_too) {
  bus.without_events();
  start();
  kx::client later(user, "later");
  kx::service offered(server, "later");
  bus.advance(1000ms);
  EXPECT_TRUE(later.is_available());
}

TEST_F(kx_start_of, a_handler_may_replace_itself) {
  client.on_available([this, text = std::string(100, 'x')] {
    client.on_available(nullptr);
    happened += text;
  });
  start();
  EXPECT_EQ(std::string(100, 'x'), happened);
}

TEST_F(kx_start_of, more_can_be_made_when_a_service_is_found) {
  std::vector<std::unique_ptr<kx::client>> made;
  client.on_available([&] {
    for (int i = 0; i < 100; ++i)
      made.push_back(std::make_unique<kx::client>(user, "maths"));
  });
  start();
  EXPECT_EQ("5", told(made.at(99)->call<int>(ADD, 4)));
}

TEST_F(kx_start_of, the_hooks_run_in_their_order) {
  const auto hook = [this](const char* name, bool is_offered) {
    return [this, name, is_offered] {
      note(name);
      EXPECT_EQ(is_offered, service.offered().ok()) << name;
    };
  };
  server.on_up(hook("up", false));
  server.on_ready(hook("ready", true));
  server.on_closing(hook("closing", true));
  server.start();
  server.stop();
  server.stop();
  EXPECT_EQ("up; ready; closing; ", happened);
}

TEST_F(kx_start_of, what_is_made_in_a_hook_joins_with_the_others) {
  std::optional<kx::service> made;
  server.on_up([&] { made.emplace(server, "made"); });
  server.start();
  EXPECT_EQ("=", told(made->offered()));
}

}  // namespace
