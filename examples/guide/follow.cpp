// Prints the oven's temperature whenever it changes, until a termination signal ends it. It may be started
// before the oven.
#include <cstdio>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"
#include "reason.h"

namespace {

unsigned int changes = 0;

// [signal]
class changed_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& signal) override {
    int degrees = 0;
    signal >> degrees;
    std::printf("%d degrees\n", degrees);
    ++changes;
  }
};
// [signal]

class follower : public KXinterface {
 public:
  explicit follower(KXcomponent& component) : m_component(component), m_changed(&component) {
    component.add_interface(this);
  }
  ~follower() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { m_component.add_close_cb(report); }
  void startup_phase2(KXcomponent*) override {
    if (subscribe() == 0) m_component.add_timer(1, this, static_subscribe, 0);
  }

 private:
  // [retry]
  static int static_subscribe(void* context, int /*cookie*/) {
    return static_cast<follower*>(context)->subscribe() == 0 ? 0 : -1;
  }

  // 0 while nobody offers the service.
  int subscribe() {
    try {
      return m_changed.subscribe_signal("oven.changed");
    } catch (const KXerror::error_e& error) {
      if (error != KXerror::ERR_ERROR_REPLY) throw;
      return 0;
    }
  }
  // [retry]

  // [report]
  static int report() {
    std::printf("%u changes seen\n", changes);
    return 0;
  }
  // [report]

  KXcomponent& m_component;
  changed_proxy m_changed;
};

}  // namespace

int main() {
  try {
    KXclientComponent component("guide-follow");
    follower application(component);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-follow: %s\n", reason_of(error));
    return 1;
  }
}
