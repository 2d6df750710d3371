// What the tests of the layer kx share.
#ifndef TESTS_KX_TEST_H
#define TESTS_KX_TEST_H

#include <gtest/gtest.h>

#include <string>

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
class kx_bus : public testing::Test {
 protected:
  enum commands { ADD = 1, LATER, SILENT, LONG, TELL };

  void SetUp() override {
    service.on<int>(ADD, [](kx::request& asked, int number) { asked.reply(number + 1); });
    service.on<>(LATER, [this](kx::request& asked) { kept.push_back(std::move(asked)); });
    service.on<>(SILENT, [](kx::request&) {});
    service.on<>(LONG, [this](kx::request& asked) {
      happened += told(asked.reply(std::string(3000, 'x'))) + (asked.is_open() ? ", open" : "");
    });
    service.on<int>(TELL, [this](kx::request& asked, int number) {
      happened += std::to_string(number) + (asked.is_open() ? " open " : " ");
    });
  }

  void start() {
    EXPECT_EQ("=", told(server.start()));
    EXPECT_EQ("=", told(user.start()));
  }

  // What a handler of an asynchronous call notes.
  auto noting() {
    return [this](const kx::result<int>& outcome) { happened += told(outcome) + " "; };
  }

  kx::testing::bus bus;
  kx::testing::app server{bus, "server"};
  kx::testing::app user{bus, "user"};
  kx::service service{server, "maths"};
  kx::client client{user, "maths"};
  std::vector<kx::request> kept;
  std::string happened;
};

#endif
