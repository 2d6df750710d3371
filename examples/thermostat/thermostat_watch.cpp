// Sets each thermostat that comes to 22 degrees, and prints what becomes of it.
#include <chrono>
#include <cstdio>

#include "commands.h"
#include "kx/app.h"
#include "kx/client.h"
#include "kx/signals.h"

int watch(kx::port& app) {
  kx::client thermostat(app, "thermostat");
  const kx::listener<int> changed(app, "thermostat.changed",
                                  [](int degrees) { std::printf("%d degrees\n", degrees); });
  thermostat.on_available([&] {
    thermostat.async<int>(SET, 22).within(std::chrono::seconds(1)).then([](const kx::result<int>& set) {
      if (!set) std::printf("it is not set: %s\n", set.error().reason.c_str());
    });
  });
  thermostat.on_gone([] { std::puts("it has gone"); });
  return app.run();
}

int main() { return kx::run("thermostat-watch", watch); }
