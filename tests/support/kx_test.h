// What the tests of the layer kx share.
#ifndef TESTS_KX_TEST_H
#define TESTS_KX_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kx/client.h"
#include "kx/service.h"
#include "kx/signals.h"
#include "kx/testing.h"

using namespace std::chrono_literals;

// How an outcome reads: "=" for success, else the code and the reason.
template <class... T>
std::string told(const kx::result<T...>& outcome) {
  static constexpr const char* codes[] = {
      "=", "no service: ", "refused: ", "no answer: ", "unreadable: ", "too long: ", "not sent: "};
  return codes[static_cast<int>(outcome.error().code)] + outcome.error().reason;
}
inline std::string told(const kx::result<int>& outcome) {
  return outcome ? std::to_string(*outcome) : told<int>(outcome);
}

// A service and who uses it, on the bus of the test.
enum commands { ADD = 1, LATER, SILENT, LONG, TELL };

struct kx_bus : testing::Test {
  void SetUp() override {
    service.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(number + 1); });
    service.on<>(LATER, [this](kx::request& asked) { kept.push_back(std::move(asked)); });
    service.on<>(SILENT, [](kx::request&) {});
    service.on<>(LONG, [this](kx::request& asked) {
      note(asked.reply(std::string(3000, 'x')));
      note(asked.is_open() ? "open" : "closed");
    });
    service.on<int>(TELL, [this](kx::request& asked, int number) {
      note(std::to_string(number) + (asked.is_open() ? " open" : ""));
    });
  }

  void start() {
    EXPECT_EQ("=", told(server.start()));
    EXPECT_EQ("=", told(user.start()));
  }

  // What happens, in a row.
  // @{
  void note(const std::string& what) { happened += what + "; "; }
  template <class... T>
  void note(const kx::result<T...>& outcome) {
    note(told(outcome));
  }
  // @}

  // Notes the answer when it comes.
  void ask(int command) {
    client.async<int>(command).then([this](const kx::result<int>& outcome) { note(outcome); });
    bus.settle();
  }

  kx::testing::bus bus;
  kx::testing::app server{bus, "server"};
  kx::testing::app user{bus, "user"};
  kx::service service{server, "maths"};
  kx::client client{user, "maths"};
  std::vector<kx::request> kept;
  std::string happened;
};

// A test of its own: when both applications run, what is played, and what has been noted of it in the end.
struct scene {
  const char* name;
  std::string expected;
  void (*play)(kx_bus& at);
};

class played_scene : public kx_bus {
 public:
  explicit played_scene(const scene& shown) : m_scene(shown) {}

 private:
  void TestBody() override {
    start();
    m_scene.play(*this);
    bus.settle();
    EXPECT_EQ(m_scene.expected, happened);
  }

  const scene& m_scene;
};

// The rows of a table are to live as long as the tests.
template <std::size_t count>
bool add_scenes(const char* suite, const char* file, const scene (&scenes)[count]) {
  for (const scene& each : scenes)
    testing::RegisterTest(suite, each.name, nullptr, nullptr, file, 0,
                          [&each]() -> kx_bus* { return new played_scene(each); });
  return true;
}

#endif
