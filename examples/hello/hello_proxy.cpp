// Calls the function "hello.greet" once and prints the greeting.
#include <cstdio>
#include <string>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"

class guest : public KXproxy, public KXinterface {
 public:
  using KXproxy::KXproxy;

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { subscribe_synchronous("hello.greet"); }
  void startup_phase2(KXcomponent*) override {
    KXmessage message;
    message << "world";
    if (proxy_send(message) == 0) return;
    std::string greeting;
    message >> greeting;
    std::puts(greeting.c_str());
  }
};

int main() {
  KXclientComponent component("hello-proxy");
  guest user(&component);
  component.add_interface(&user);
  try {
    component.start(KXcomponent::CMP_START_AND_STOP);
    return 0;
  } catch (const KXerror::error_e&) {
    std::fputs("kxcore refuses: is hello-stub running?\n", stderr);
    component.stop();
    return 1;
  }
}
