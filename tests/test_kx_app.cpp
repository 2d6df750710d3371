// Applications of the layer kx on the real bus: how they start and end, and that the bus of the tests gives
// the same results.
#include <fcntl.h>
#include <unistd.h>

#include "core_probe.h"
#include "core_process.h"
#include "kx/app.h"
#include "kx_test.h"

namespace {

// --- the same script on both ---

enum served { ADD = 1, FAIL, LATER, EMIT, OFFER, WITHDRAW, TAKE };

int serve(kx::port& app) {
  kx::service maths(app, "maths");
  kx::emitter<int, std::string> tick(app, "tick");
  std::unique_ptr<kx::service> brief;
  kx::request kept;
  kx::timer timer(app, [&] { kept.reply(7); });
  maths.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(number + 1); });
  maths.on(FAIL, [](kx::request& asked) { asked.refuse("it does not want to"); });
  maths.on(LATER, [&](kx::request& asked) {
    kept = std::move(asked);
    timer.once(50ms);
  });
  maths.on<int>(EMIT, [&](kx::request&, int number) { tick.emit(number, "x"); });
  maths.on(OFFER, [&](kx::request& asked) {
    brief = std::make_unique<kx::service>(app, "brief");
    brief->on(TAKE, [&](kx::request& taken) { kept = std::move(taken); });
    asked.reply();
  });
  maths.on(WITHDRAW, [&](kx::request& asked) {
    brief.reset();
    asked.reply();
  });
  return app.run();
}

class user {
 public:
  explicit user(kx::port& app) : m_app(app) {
    m_brief.on_available([this] { note("brief is available"); });
    m_brief.on_gone([this] { note("brief is gone"); });
    m_app.on_ready([this] { look_around(), call(), ask(); });
    m_app.on_closing([this] { note("closing, " + std::to_string(m_maths.late()) + " late"); });
  }

  std::string happened;

 private:
  void note(const std::string& text) { happened += text + "\n"; }

  struct : kx::receiver {
    void receive(KXmessage&) override {}
  } nobody;

  static std::string siids(const kx::result<std::unique_ptr<kx::link>>& granted) {
    if (!granted) return granted.error().reason;
    return std::to_string((*granted)->siid()) + " of " + std::to_string((*granted)->service_siid());
  }

  // What the core grants, and what not.
  void look_around() {
    for (const char* const name : {"maths", "mine", "mine", "kxcore.x", "", "a\n"})
      note(siids(m_app.offer(name, kx::kind::function, "none", nobody)));
    for (const char* const name : {"maths", "tick", "nobody", "", "kxcore.events"})
      for (const kx::kind of : {kx::kind::function, kx::kind::signal})
        note(siids(m_app.use(name, of, nobody)));
    const std::vector<std::unique_ptr<kx::link>> held = [&] {
      std::vector<std::unique_ptr<kx::link>> links;
      for (int i = 0; i < 2; ++i)
        links.push_back(std::move(*m_app.use("tick", kx::kind::signal, nobody)));
      return links;
    }();
    note(siids(m_app.use("maths", kx::kind::function, nobody)));
  }

  void call() {
    note(told(m_maths.call<int>(ADD, 4)));
    note(told(m_maths.call<int>(ADD, "4")));
    note(told(m_maths.call<int>(FAIL)));
    note(told(m_maths.call<int>(99)));
    note(told(m_maths.call<bool>(ADD, 4)));
    note(told(m_maths.call<int>(LATER)));
    note(told(m_brief.call<int>(ADD)));
  }

  void ask() {
    m_maths.async<int>(LATER).within(10ms).then([this](const kx::result<int>& outcome) {
      note(told(outcome));
      m_maths.async<int>(LATER).then(
          [this](const kx::result<int>& later) { note(told(later)), come_and_go(); });
    });
  }

  void come_and_go() {
    note("offer" + told(m_maths.call<>(OFFER)));
    m_brief.on_available([this] {
      note("brief is back");
      m_brief.async<int>(TAKE).then([this](const kx::result<int>& outcome) { note(told(outcome)), again(); });
      note("withdraw" + told(m_maths.call<>(WITHDRAW)));
    });
  }

  void again() {
    m_brief.on_available([this] {
      note(siids(m_app.use("brief", kx::kind::function, nobody)));
      note(told(m_brief.call<int>(ADD)));
      m_maths.send(EMIT, 3);
    });
    note("offer" + told(m_maths.call<>(OFFER)));
  }

  void hear(int number, const std::string& text) {
    note("heard " + std::to_string(number) + text);
    m_app.quit(number);
  }

  kx::port& m_app;
  kx::client m_maths{m_app, "maths"};
  kx::client m_brief{m_app, "brief"};
  kx::listener<int, std::string> m_tick{m_app, "tick",
                                        [this](int number, const std::string& text) { hear(number, text); }};
};

std::string happens_on_the_bus_of_tests() {
  kx::testing::bus bus;
  kx::testing::app server(bus, "server");
  kx::testing::app using_it(bus, "user");
  user tested(using_it);
  using_it.while_running([&] { bus.advance(60s); });
  server.while_running([&] { tested.happened += "status " + std::to_string(using_it.run()); });
  serve(server);
  return tested.happened;
}

std::string happens_over_kxcore() {
  const core_process core;
  app_process server("server", serve);
  kx::app using_it("user");
  user tested(using_it);
  tested.happened += "status " + std::to_string(using_it.run());
  return tested.happened;
}

TEST(kx_app, the_bus_of_tests_gives_the_results_of_kxcore) {
  EXPECT_EQ(happens_over_kxcore(), happens_on_the_bus_of_tests());
}

// --- start and end ---

class kx_start : public seam_test {
 protected:
  // What an application writes on standard error, and its status.
  template <class Prepare>
  static std::string started(const Prepare& prepare, const char* name = "tested") {
    testing::internal::CaptureStderr();
    int status = 0;
    {
      kx::app app(name);
      prepare(app);
      status = app.run();
    }
    return testing::internal::GetCapturedStderr() + std::to_string(status);
  }
  static std::string started() {
    return started([](kx::app&) {});
  }
};

TEST_F(kx_start, a_core_that_is_missing_is_told_in_one_line) {
  EXPECT_EQ("tested: kxcore does not run, there is no /tmp/kxcore/kxcore\n1",
            started([](kx::app& app) { app.wait_for_core(false); }));
}

TEST_F(kx_start, a_core_that_is_missing_is_waited_for) {
  std::unique_ptr<core_process> core;
  seam::fake_clock(100);
  seam::before(seam::SLEEP, [&core] { core = std::make_unique<core_process>(); });
  seam::before(seam::ACCESS, [&core] {
    if (core != nullptr) seam::disarm();
  });
  EXPECT_EQ("tested: waiting: kxcore does not run, there is no /tmp/kxcore/kxcore\n5",
            started([](kx::app& app) { app.on_ready([&app] { app.quit(5); }); }));
}

TEST_F(kx_start, a_core_that_has_ended_ends_the_start) {
  leave_dead_socket(fake_core::mgmt_path);
  seam::fake_clock(100);
  EXPECT_EQ("tested: kxcore does not answer at /tmp/kxcore/kxcore\n1", started());
  EXPECT_EQ(102, seam::now()) << "only the registration is tried";
  unlink(fake_core::mgmt_path);
}

TEST_F(kx_start, a_core_that_does_not_answer_is_waited_for_ten_seconds) {
  const raw_socket silent(fake_core::mgmt_path);
  seam::fake_clock(100);
  EXPECT_EQ("tested: kxcore does not answer at /tmp/kxcore/kxcore\n1", started());
  EXPECT_EQ(110, seam::now());
}

TEST_F(kx_start, a_component_that_lives_keeps_its_name) {
  const raw_socket living("/tmp/kxcore/tested");
  EXPECT_EQ("tested: the name is taken, another process serves /tmp/kxcore/tested\n1", started());
}

TEST_F(kx_start, the_name_of_a_component_that_has_ended_is_free) {
  const core_process core;
  leave_dead_socket("/tmp/kxcore/tested");
  EXPECT_EQ("0", started([](kx::app& app) { app.on_ready([&app] { app.quit(); }); }));
}

TEST_F(kx_start, a_name_that_is_too_long_is_told) {
  const std::string name(100, 'x');
  EXPECT_EQ(name + ": cannot bind its sockets below /tmp/kxcore: File name too long\n1",
            started([](kx::app&) {}, name.c_str()));
}

TEST_F(kx_start, a_service_that_is_taken_ends_the_start) {
  const core_process core;
  app_process server("server", serve);
  std::unique_ptr<kx::service> taken;
  EXPECT_EQ("tested: 'maths' is offered by server\n1",
            started([&](kx::app& app) { taken = std::make_unique<kx::service>(app, "maths"); }));
}

TEST_F(kx_start, an_application_that_could_not_start_has_left_the_bus) {
  const core_process core;
  kx::app app("tested");
  const kx::service service(app, "kxcore.reserved");
  app.run();
  EXPECT_NE(0, access("/tmp/kxcore/tested", F_OK));
}

TEST_F(kx_start, a_signal_ends_an_application_in_order) {
  const core_process core;
  app_process server("server", [](kx::port& app) {
    app.on_closing([&app] { app.quit(33); });
    return serve(app);
  });
  EXPECT_EQ(33, server.end(SIGTERM));
}

TEST_F(kx_start, a_signal_is_not_lost_while_the_core_is_asked_for_something) {
  const core_process core;
  kx::app app("tested");
  kx::timer timer(app, [&] {
    kill(getpid(), SIGTERM);
    const kx::client asking(app, "nobody");
  });
  timer.once(0ms);
  EXPECT_EQ(0, app.run());
}

TEST_F(kx_start, an_end_is_not_lost_when_a_service_is_found_at_the_same_time) {
  const core_process core;
  app_process server("server", serve);
  kx::app app("tested");
  kx::client client(app, "maths");
  kx::client missing(app, "brief");
  app.on_ready([&] {
    static_cast<void>(client.call<>(OFFER));  // the loop begins with what the core tells of it
    app.quit(6);
  });
  EXPECT_EQ(6, app.run());
}

TEST_F(kx_start, what_the_application_ends_in_its_start_ends_it) {
  const core_process core;
  for (const bool in_up : {true, false}) {
    const auto prepare = [in_up](kx::app& app) {
      const auto hook = [&app] { app.quit(4); };
      in_up ? app.on_up(hook) : app.on_ready(hook);
    };
    EXPECT_EQ("4", started(prepare)) << in_up;
  }
}

TEST_F(kx_start, objects_may_outlive_their_application) {
  const core_process core;
  std::unique_ptr<kx::service> offered;
  std::unique_ptr<kx::client> used;
  std::unique_ptr<kx::listener<int>> heard;
  started([&](kx::app& app) {
    offered = std::make_unique<kx::service>(app, "own");
    used = std::make_unique<kx::client>(app, "own");
    heard = std::make_unique<kx::listener<int>>(app, "kxcore.events", [](int) {});
    app.on_ready([&app] { app.quit(); });
  });
  EXPECT_EQ("not sent: it has left the bus", told(used->call<int>(1)));
}

TEST_F(kx_start, objects_may_go_in_the_closing_hook_and_after_the_end) {
  const core_process core;
  kx::app app("tested");
  auto first = std::make_unique<kx::service>(app, "first");
  auto second = std::make_unique<kx::service>(app, "second");
  app.on_ready([&app] { app.quit(); });
  app.on_closing([&first] { first.reset(); });
  app.run();
  second.reset();
  EXPECT_EQ(0, seam::times_logged("no service with siid"));
}

TEST_F(kx_start, a_call_of_a_service_of_its_own_is_not_made) {
  const core_process core;
  std::string outcome;
  kx::app app("tested");
  kx::service service(app, "own");
  kx::client client(app, "own");
  app.on_ready([&] {
    outcome = told(client.call<int>(1));
    client.async<int>(1).then([&](const kx::result<int>& later) {
      outcome += ", " + told(later);
      app.quit();
    });
  });
  app.run();
  EXPECT_EQ(
      "not sent: 'own' is the application's own: only an asynchronous call reaches it, "
      "refused: the service has no command 1",
      outcome);
}

TEST_F(kx_start, a_call_says_whether_it_was_sent) {
  const core_process core;
  const app_process server("server", serve);
  std::string outcome;
  kx::app app("tested");
  kx::client client(app, "maths");
  app.on_ready([&] {
    seam::fake_clock(100);
    outcome = told(client.call<int>(LATER));
    seam::fail(seam::SENDTO, ECONNREFUSED, 3);
    outcome += ", " + told(client.call<int>(LATER));
    seam::disarm();
    app.quit();
  });
  app.run();
  EXPECT_EQ("no answer: 'maths' does not answer, not sent: the message could not be sent", outcome);
}

TEST_F(kx_start, a_one_way_message_leaves_a_client_what_it_is) {
  const core_process core;
  const app_process server("server", serve);
  kx::app app("tested");
  auto client = std::make_unique<kx::client>(app, "maths");
  app.on_ready([&] {
    client->send(ADD, 1);
    client.reset();
    app.quit();
  });
  app.run();
  EXPECT_FALSE(seam::logged("KXproxy::disconnect")) << "it has left as the user of a signal";
}

TEST_F(kx_start, a_service_that_the_core_cannot_be_told_of_goes_all_the_same) {
  const core_process core;
  kx::app app("tested");
  auto service = std::make_unique<kx::service>(app, "own");
  app.on_ready([&] {
    seam::fake_clock(100);
    seam::fail(seam::SENDTO, ECONNREFUSED, 3);
    service.reset();
    seam::disarm();
    app.quit();
  });
  app.run();
  EXPECT_EQ(1, seam::times_logged("sending message to")) << "there is nobody left to withdraw";
}

TEST_F(kx_start, timers_and_descriptors_run_in_the_loop) {
  const core_process core;
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  std::string happened;
  kx::app app("tested");
  std::unique_ptr<kx::descriptor> watched;
  std::unique_ptr<kx::timer> timer;
  watched = std::make_unique<kx::descriptor>(app, ends[0], [&] {
    happened += "readable";
    watched.reset();
    app.quit();
  });
  timer = std::make_unique<kx::timer>(app, [&] {
    happened += "timer ";
    timer.reset();
    EXPECT_EQ(1, write(ends[1], "x", 1));
  });
  timer->once(1ms);
  app.run();
  EXPECT_EQ("timer readable", happened);
  EXPECT_EQ(0, seam::times_logged("removed itself"));
  for (const int end : ends)
    close(end);
}

TEST_F(kx_start, a_timer_that_starts_itself_anew_is_no_error_of_the_loop) {
  const core_process core;
  int runs = 0;
  kx::app app("tested");
  std::unique_ptr<kx::timer> timer;
  timer = std::make_unique<kx::timer>(app, [&] {
    if (++runs == 3) return app.quit();
    timer->once(1ms);
  });
  timer->every(2ms);
  app.run();
  EXPECT_EQ(3, runs);
  EXPECT_EQ(0, seam::times_logged("removed itself"));
}

}  // namespace
