// kxctl wait.
#include "kxctl_run.h"

namespace {

constexpr unsigned char registered = 1, subscribed = 5;

using waits = bus_with_core;

}  // namespace

TEST_F(waits, end_at_once_when_it_is_there_already) {
  stand_in server("server");
  server.ask(CMD_REG_FUNCTION, "get");
  EXPECT_EQ("0: ", kxctl("wait get"));
  EXPECT_EQ("0: ", kxctl("wait --component server"));
  EXPECT_EQ("0: ", kxctl("wait --gone nix"));
  EXPECT_EQ("0: ", kxctl("wait --gone --component nix"));
}

TEST_F(waits, end_when_it_comes) {
  watcher bus;
  run service("kxctl wait get");
  run component("kxctl wait --component server");
  for (const run* each : {&service, &component})
    bus.await(registered, each->name());
  stand_in server("server");
  server.ask(CMD_REG_FUNCTION, "get");
  EXPECT_EQ("0: ", ended_with(service));
  EXPECT_EQ("0: ", ended_with(component));
}

TEST_F(waits, end_when_it_goes) {
  watcher bus;
  stand_in server("server");
  server.ask(CMD_REG_FUNCTION, "get");
  run service("kxctl wait --gone get");
  run component("kxctl wait --gone --component server");
  for (const run* each : {&service, &component})
    bus.await(subscribed, each->name());
  server.tell(CMD_UNREG_FUNCTION, server.siid);
  EXPECT_EQ("0: ", ended_with(service));
  server.leave();
  EXPECT_EQ("0: ", ended_with(component));
}

TEST_F(waits, end_when_the_time_is_over) {
  stand_in server("server");
  EXPECT_EQ("124: ! kxctl: 'get' is not offered in time", kxctl("--timeout 0.05 wait get"));
  EXPECT_EQ("124: ! kxctl: 'server' is still there", kxctl("--timeout 0.05 wait --gone --component server"));
}

TEST_F(waits, leave_no_line_in_the_log_of_the_core) {
  kxctl("--timeout 0.05 wait get");
  kxctl("list");
  kxctl("--timeout 0.05 emit --wait tick");
  watcher bus;  // the core has read what they have told it
  EXPECT_EQ("", core->err());
}
