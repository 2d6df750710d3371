// The thermostat of the examples: on the bus of tests, and both ways of writing it over kxcore.
#include "thermostat.h"

#include "core_process.h"
#include "kx_test.h"

namespace {

// Uses a thermostat and notes what it does; ends when its self-test does.
class tester {
 public:
  explicit tester(kx::port& app) : m_app(app) {
    m_thermostat.on_available([this] { m_pause.once(1ms); });  // its signals are offered behind it
  }

  std::string happened;

 private:
  void note(const std::string& text) { happened += text + "; "; }

  void use() {
    note("get " + told(m_thermostat.call<int>(GET)));
    for (const int degrees : {4, 5, 30, 31})
      note("set " + told(m_thermostat.call<int>(SET, degrees)));
    note("set " + told(m_thermostat.call<int>(SET, 7u)).substr(0, 33));
    note("get " + told(m_thermostat.call<int>(GET)));
    m_thermostat.async<int>(SELF_TEST).then([this](const kx::result<int>& faults) {
      note("faults " + told(faults));
      m_app.quit();
    });
    note("test " + told(m_thermostat.call<int>(SELF_TEST)));
  }

  kx::port& m_app;
  kx::client m_thermostat{m_app, "thermostat"};
  kx::listener<int> m_changed{m_app, "thermostat.changed",
                              [this](int to) { note("changed to " + std::to_string(to)); }};
  kx::listener<int> m_progress{m_app, "thermostat.progress",
                               [this](int to) { note(std::to_string(to) + "%"); }};
  kx::timer m_pause{
      m_app, [this] { m_changed.is_available() && m_progress.is_available() ? use() : m_pause.once(1ms); }};
};

constexpr char expected[] =
    "get 20; set refused: it is not between 5 and 30 degrees; set 5; set 30; "
    "set refused: it is not between 5 and 30 degrees; set refused: the arguments do not fit; get 30; "
    "test refused: a self-test is under way; changed to 5; changed to 30; "
    "25%; 50%; 75%; 100%; faults 0; ";

TEST(a_thermostat, serves_on_the_bus_of_tests) {
  kx::testing::bus bus;
  kx::testing::app server(bus, "thermostat");
  kx::testing::app user(bus, "tester");
  tester tested(user);
  server.while_running([&] {
    user.start();
    bus.advance(1s);
  });
  thermostat(server);
  EXPECT_EQ(expected, tested.happened);
}

std::string serves_over_kxcore(const char* command) {
  const core_process core;
  const child_process server(words_of(command));
  kx::app app("tester");
  tester tested(app);
  app.run();
  return tested.happened;
}

TEST(a_thermostat, serves_over_kxcore) { EXPECT_EQ(expected, serves_over_kxcore(THERMOSTAT_COMMAND)); }

TEST(a_thermostat, that_is_written_with_the_classes_does_the_same) {
  EXPECT_EQ(expected, serves_over_kxcore(CLASSES_COMMAND));
}

TEST(a_thermostat, that_is_made_from_a_description_does_the_same) {
  EXPECT_EQ(expected, serves_over_kxcore(DESCRIBED_COMMAND));
}

TEST(a_thermostat, tests_itself_again) {
  kx::testing::bus bus;
  kx::testing::app server(bus, "thermostat");
  kx::testing::app user(bus, "tester");
  kx::client client(user, "thermostat");
  std::string happened;
  server.while_running([&] {
    user.start();
    for (int i = 0; i < 2; ++i) {
      happened += told(client.call<int>(SELF_TEST));
      happened += "@" + std::to_string(user.now()) + " ";
    }
  });
  thermostat(server);
  EXPECT_EQ("0@400 0@800 ", happened);
}

}  // namespace
