// A thermostat, written with the layer kx.
#ifndef THERMOSTAT_H
#define THERMOSTAT_H

#include <chrono>
#include <utility>

#include "commands.h"
#include "kx/loop.h"
#include "kx/service.h"
#include "kx/signals.h"

inline int thermostat(kx::port& app) {
  int degrees = 20, percent = 0;
  kx::request test;  // the self-test that is under way
  kx::service service(app, "thermostat");
  kx::emitter<int> changed(app, "thermostat.changed"), progress(app, "thermostat.progress");
  kx::timer step(app, [&] {
    progress.emit(percent = percent % 100 + 25);
    if (percent < 100) return;
    step.stop();
    test.reply(0);
  });
  service.on(GET, [&](kx::request& asked) { asked.reply(degrees); });
  service.on<int>(SET, [&](kx::request& asked, int wanted) {
    if (wanted < 5 || wanted > 30) return asked.refuse("it is not between 5 and 30 degrees");
    changed.emit(degrees = wanted);
    asked.reply(degrees);
  });
  service.on(SELF_TEST, [&](kx::request& asked) {
    if (test.is_open()) return asked.refuse("a self-test is under way");
    test = std::move(asked);
    step.every(std::chrono::milliseconds(100));
  });
  return app.run();
}

#endif
