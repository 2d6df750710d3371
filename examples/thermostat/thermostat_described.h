// The same thermostat, from the description of its services: its functions override those of the generated
// class.
#ifndef THERMOSTAT_DESCRIBED_H
#define THERMOSTAT_DESCRIBED_H

#include <chrono>
#include <utility>

#include "kx/loop.h"
#include "thermostat_service.h"

class described_thermostat final : public thermostat::server {
 public:
  explicit described_thermostat(kx::port& app) : server(app), m_step(app, [this] { step(); }) {}

 private:
  void get(kx::typed_request<int>& asked) override { asked.reply(m_degrees); }
  void set(kx::typed_request<int>& asked, int wanted) override {
    if (wanted < 5 || wanted > 30) return asked.refuse("it is not between 5 and 30 degrees");
    changed.emit(m_degrees = wanted);
    asked.reply(m_degrees);
  }
  void self_test(kx::typed_request<int>& asked) override {
    if (m_test.is_open()) return asked.refuse("a self-test is under way");
    m_test = std::move(asked);
    m_step.every(std::chrono::milliseconds(100));
  }
  void step() {
    progress.emit(m_percent = m_percent % 100 + 25);
    if (m_percent < 100) return;
    m_step.stop();
    m_test.reply(0);
  }

  int m_degrees = 20;
  int m_percent = 0;
  kx::typed_request<int> m_test;  // the self-test that is under way
  kx::timer m_step;
};

#endif
