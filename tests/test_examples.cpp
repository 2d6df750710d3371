// The programs of the examples, as they are, on the bus of tests.
#define main main_of_hello
#include "hello.cpp"
#undef main
#define main main_of_greet
#include "greet.cpp"
#undef main
#define main main_of_watch
#include "thermostat_watch.cpp"
#undef main

#include "kx_test.h"
#include "thermostat.h"

namespace {

TEST(an_example_hello, greets) {
  kx::testing::bus bus;
  kx::testing::app server(bus, "hello");
  kx::testing::app user(bus, "user");
  kx::client client(user, "hello");
  std::string greeting;
  server.while_running([&] {
    user.start();
    greeting = *client.call<std::string>(1, "you");
  });
  hello(server);
  EXPECT_EQ("Hello, you!", greeting);
}

// What a program prints that runs while `rest` happens.
std::string printed(const std::function<void()>& rest) {
  testing::internal::CaptureStdout();
  rest();
  return testing::internal::GetCapturedStdout();
}

TEST(an_example_greet, prints_the_greeting) {
  kx::testing::bus bus;
  kx::testing::app server(bus, "hello");
  kx::testing::app user(bus, "greet");
  server.while_running([&] { greet(user); });
  EXPECT_EQ("Hello, world!\n", printed([&] { hello(server); }));
}

TEST(an_example_greet, prints_why_there_is_no_greeting) {
  kx::testing::bus bus;
  kx::testing::app user(bus, "greet");
  EXPECT_EQ("nobody offers 'hello'\n", printed([&] { greet(user); }));
}

TEST(an_example_greet, fails_without_a_greeting) {
  kx::testing::bus bus;
  kx::testing::app user(bus, "greet");
  EXPECT_EQ(1, greet(user));
}

TEST(an_example_watch, prints_what_becomes_of_a_thermostat_that_comes_and_goes) {
  kx::testing::bus bus;
  kx::testing::app user(bus, "watch");
  user.while_running([&] {
    for (int i = 0; i < 2; ++i) {
      kx::testing::app server(bus, "thermostat");
      server.while_running([&] { bus.settle(); });
      thermostat(server);
      bus.settle();
    }
  });
  EXPECT_EQ("22 degrees\nit has gone\n22 degrees\nit has gone\n", printed([&] { watch(user); }));
}

// [silence]
TEST(an_example_watch, prints_that_a_thermostat_does_not_answer) {
  kx::testing::bus bus;
  kx::testing::app user(bus, "watch");
  kx::testing::app server(bus, "thermostat");
  bus.silence("thermostat");
  server.while_running([&] { bus.advance(1s); });
  user.while_running([&] { thermostat(server); });
  EXPECT_EQ("it is not set: 'thermostat' does not answer\n", printed([&] { watch(user); }));
}
// [silence]

}  // namespace
