// Asks the oven for its temperature, once, and ends.
#include <cstdio>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"

namespace {

// [synchronous]
class reader : public KXinterface {
 public:
  explicit reader(KXcomponent& component) : m_oven(&component, 5) { component.add_interface(this); }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { m_oven.subscribe_synchronous("oven.temperature"); }
  void startup_phase2(KXcomponent*) override {
    KXmessage message;
    if (m_oven.proxy_send(message) == 0) {
      std::puts("no response");
    } else if (message.m_header->msg_type == MSG_ERR) {
      std::puts("refused");
    } else {
      int degrees = 0;
      message >> degrees;
      std::printf("%d degrees\n", degrees);
    }
  }

 private:
  KXproxy m_oven;
};
// [synchronous]

}  // namespace

// [main]
int main() {
  KXclientComponent component("guide-read");
  reader application(component);
  try {
    component.start(KXcomponent::CMP_START_AND_STOP);
    return 0;
  } catch (const KXerror::error_e&) {
    std::fputs("kxcore refuses: is guide-oven running?\n", stderr);
    component.stop();
    return 1;
  }
}
// [main]
