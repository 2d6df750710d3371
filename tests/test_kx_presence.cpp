// How the objects of the layer kx come and go: with their services, their applications and the core.
#include <optional>

#include "kx_test.h"

namespace {

struct kx_presence : kx_bus {
  void watch(kx::client& watched) {
    watched.on_available([this] { happened += "available "; });
    watched.on_gone([this] { happened += "gone "; });
  }
};

TEST_F(kx_presence, a_service_that_is_there_is_available_at_the_start) {
  watch(client);
  start();
  EXPECT_EQ("available ", happened);
}

TEST_F(kx_presence, a_service_that_comes_later_is_found) {
  watch(client);
  user.start();
  EXPECT_EQ("", happened);
  server.start();
  bus.settle();
  EXPECT_EQ("available ", happened);
  EXPECT_EQ("5", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, what_happens_to_other_services_is_not_told) {
  watch(client);
  start();
  { const kx::service other(server, "other"); }
  bus.settle();
  EXPECT_EQ("available ", happened);
}

TEST_F(kx_presence, a_client_that_nobody_asks_finds_its_service_too) {
  user.start();
  server.start();
  bus.settle();
  EXPECT_TRUE(client.is_available());
}

TEST_F(kx_presence, a_client_that_is_made_while_the_application_runs_finds_its_service) {
  start();
  kx::client later(user, "maths");
  EXPECT_TRUE(later.is_available());
}

TEST_F(kx_presence, a_listener_finds_its_signal_when_it_comes) {
  kx::listener<int> listener(user, "tick", [this](int number) { happened += std::to_string(number); });
  start();
  kx::emitter<int> tick(server, "tick");
  bus.settle();
  tick.emit(3);
  bus.settle();
  EXPECT_EQ("3", happened);
}

TEST_F(kx_presence, the_end_of_a_service_is_told_whatever_ends_it) {
  struct {
    const char* what;
    std::function<void(kx::testing::app&, std::optional<kx::service>&)> end;
  } const rows[] = {
      {"it is destroyed", [](auto&, auto& ended) { ended.reset(); }},
      {"its application stops", [](auto& at, auto&) { at.stop(); }},
      {"its application crashes", [](auto& at, auto&) { at.crash(); }},
  };
  start();
  for (const auto& each : rows) {
    kx::testing::app other(bus, "other");
    std::optional<kx::service> ended(std::in_place, other, "brief");
    other.start();
    kx::client watching(user, "brief");
    watch(watching);
    bus.settle();
    happened.clear();
    each.end(other, ended);
    bus.settle();
    EXPECT_EQ("gone ", happened) << each.what;
  }
}

TEST_F(kx_presence, a_service_that_comes_back_in_another_process_is_used_again) {
  watch(client);
  start();
  server.crash();
  bus.settle();
  kx::testing::app again(bus, "server");
  kx::service back(again, "maths");
  back.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(-number); });
  again.start();
  bus.settle();
  EXPECT_EQ("available gone available ", happened);
  EXPECT_EQ("-4", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, a_service_that_its_application_offers_anew_is_used_again) {
  start();
  watch(client);
  { const kx::service gone = std::move(service); }
  kx::service anew(server, "maths");
  anew.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(-number); });
  bus.settle();
  EXPECT_EQ("-4", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, a_request_under_way_survives_that_its_service_is_told_to_be_offered) {
  watch(client);
  start();
  server.crash();
  kx::testing::app again(bus, "server");
  kx::service back(again, "maths");
  back.on(LATER, [this](kx::request& asked) { kept.push_back(std::move(asked)); });
  again.start();
  client.async<int>(LATER).then(noting());
  bus.settle();
  kept.at(0).reply(6);
  bus.settle();
  EXPECT_EQ("available gone available 6 ", happened);
}

TEST_F(kx_presence, without_events_a_service_is_looked_for_each_second) {
  bus.without_events();
  watch(client);
  user.start();
  server.start();
  bus.advance(999ms);
  EXPECT_EQ("", happened);
  bus.advance(1ms);
  EXPECT_EQ("available ", happened);
}

TEST_F(kx_presence, without_events_what_is_missing_later_is_looked_for_too) {
  bus.without_events();
  start();
  kx::client later(user, "later");
  kx::service offered(server, "later");
  bus.advance(1000ms);
  EXPECT_TRUE(later.is_available());
}

TEST_F(kx_presence, a_client_may_be_destroyed_when_its_service_is_gone) {
  auto brief = std::make_unique<kx::client>(user, "maths");
  brief->on_gone([&] { brief.reset(); });
  start();
  server.stop();
  bus.settle();
  EXPECT_EQ(nullptr, brief);
}

TEST_F(kx_presence, a_handler_may_replace_itself) {
  client.on_available([this, text = std::string(100, 'x')] {
    client.on_available(nullptr);
    happened += text;
  });
  start();
  EXPECT_EQ(std::string(100, 'x'), happened);
}

TEST_F(kx_presence, more_can_be_made_when_a_service_is_found) {
  std::vector<std::unique_ptr<kx::client>> made;
  client.on_available([&] {
    for (int i = 0; i < 100; ++i)
      made.push_back(std::make_unique<kx::client>(user, "maths"));
  });
  start();
  EXPECT_EQ("5", told(made.at(99)->call<int>(ADD, 4)));
}

TEST_F(kx_presence, what_comes_and_goes_while_news_are_told_keeps_nobody_from_them) {
  auto first = std::make_unique<kx::client>(user, "maths");
  kx::client second(user, "maths");
  const kx::client third(user, "maths");
  std::unique_ptr<kx::client> made;
  second.on_gone([&] {
    first.reset();
    made = std::make_unique<kx::client>(user, "maths");
  });
  start();
  server.stop();
  bus.settle();
  EXPECT_FALSE(third.is_available());
}

// --- applications ---

TEST_F(kx_presence, the_hooks_run_in_their_order) {
  server.on_up([this] { happened += "up" + std::string(service.offered() ? "! " : " "); });
  server.on_ready([this] { happened += "ready" + std::string(service.offered() ? " " : "! "); });
  server.on_closing([this] { happened += "closing" + std::string(service.offered() ? " " : "! "); });
  server.start();
  server.stop();
  server.stop();
  EXPECT_EQ("up ready closing ", happened);
}

TEST_F(kx_presence, what_is_made_in_a_hook_joins_with_the_others) {
  std::optional<kx::service> made;
  server.on_up([&] { made.emplace(server, "made"); });
  server.start();
  EXPECT_EQ("=", told(made->offered()));
}

TEST_F(kx_presence, an_application_quits_when_what_it_does_is_done) {
  service.on<int>(ADD, [this](kx::request& asked, int number) {
    server.quit(number);
    asked.reply(server.runs() ? 1 : 0);
  });
  start();
  EXPECT_EQ("1", told(client.call<int>(ADD, 42)));
  EXPECT_FALSE(server.runs());
  EXPECT_EQ(42, server.status());
}

TEST_F(kx_presence, a_name_that_is_taken_ends_the_start) {
  server.start();
  kx::testing::app other(bus, "other");
  kx::service taken(other, "maths");
  EXPECT_EQ("refused: 'maths' is offered by server", told(other.start()));
  EXPECT_FALSE(other.runs());
}

TEST_F(kx_presence, an_application_that_does_not_start_has_nothing_to_close) {
  server.start();
  kx::testing::app other(bus, "other");
  other.on_closing([this] { happened += "closing"; });
  const kx::service taken(other, "maths");
  other.start();
  EXPECT_EQ("", happened);
}

TEST_F(kx_presence, a_name_that_is_taken_later_is_told_by_the_service) {
  start();
  kx::service taken(user, "maths");
  EXPECT_EQ("refused: 'maths' is offered by server", told(taken.offered()));
}

TEST_F(kx_presence, objects_may_outlive_their_application) {
  std::optional<kx::testing::app> brief(std::in_place, bus, "brief");
  kx::service offered(*brief, "brief");
  kx::client used(*brief, "maths");
  kx::emitter<int> signal(*brief, "signal");
  kx::listener<int> listener(*brief, "tick", [](int) {});
  kx::timer timer(*brief, [] {});
  kx::descriptor watched(*brief, 7, [] {});
  start();
  brief->start();
  brief.reset();
  timer.every(1ms);
  bus.advance(10ms);
  EXPECT_EQ("not sent: it has left the bus", told(used.call<int>(ADD, 4)));
  EXPECT_EQ("not sent: it has left the bus", told(signal.emit(4)));
  EXPECT_EQ("not sent: it has left the bus", told(offered.offered()));
}

TEST_F(kx_presence, a_component_that_takes_the_name_of_another_replaces_it) {
  watch(client);
  start();
  kx::testing::app again(bus, "server");
  kx::service back(again, "maths");
  EXPECT_EQ("=", told(again.start()));
  bus.settle();
  EXPECT_EQ("available gone available ", happened);
}

TEST_F(kx_presence, a_process_that_is_killed_closes_nothing) {
  server.on_closing([this] { happened += "closing"; });
  start();
  server.crash();
  server.stop();
  EXPECT_EQ("", happened);
}

// --- faults of the bus ---

TEST_F(kx_presence, a_component_that_does_not_read_is_told_to_who_asks_it) {
  start();
  bus.fill_queue("maths");
  EXPECT_EQ("refused: the component does not read, its queue is full", told(client.call<int>(ADD, 4)));
  bus.fill_queue("maths", false);
  EXPECT_EQ("5", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, a_core_that_was_restarted_knows_nobody) {
  start();
  bus.restart_core();
  EXPECT_EQ("refused: the sender is not registered", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, a_service_that_was_silent_answers_again) {
  start();
  bus.silence("maths");
  bus.silence("maths", false);
  EXPECT_EQ("5", told(client.call<int>(ADD, 4)));
}

TEST_F(kx_presence, two_that_call_each_other_wait_until_both_give_up) {
  kx::service back(user, "back");
  kx::client calling_back(server, "back");
  service.on(9, [&](kx::request& asked) {
    happened = told(calling_back.call<int>(1));
    asked.reply(1);
  });
  start();
  static_cast<void>(client.call<int>(9));
  EXPECT_EQ("no answer: 'back' does not answer", happened);
}

}  // namespace
