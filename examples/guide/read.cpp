// Asks the oven for its temperature, once, and ends.
#include <cstdio>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"
#include "reason.h"

namespace {

// [synchronous]
class reader : public KXinterface {
 public:
  explicit reader(KXcomponent& component) : m_component(component), m_oven(&component, 5) {
    component.add_interface(this);
  }
  ~reader() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { m_oven.subscribe_synchronous("oven.temperature"); }
  void startup_phase2(KXcomponent*) override {
    KXmessage message;
    if (m_oven.proxy_send(message) == 0) {
      std::puts("no response");
    } else if (message.m_header->msg_type == MSG_ERR) {
      std::puts("refused");
    } else {
      m_answered = true;
      int degrees = 0;
      message >> degrees;
      std::printf("%d degrees\n", degrees);
    }
  }

  bool m_answered = false;

 private:
  KXcomponent& m_component;
  KXproxy m_oven;
};
// [synchronous]

}  // namespace

// [main]
int main() {
  try {
    KXclientComponent component("guide-read");
    reader application(component);
    component.start(KXcomponent::CMP_START_AND_STOP);
    return application.m_answered ? 0 : 1;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-read: %s\n", reason_of(error));
    return 1;
  }
}
// [main]
