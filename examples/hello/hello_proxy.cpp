// Calls the function "hello.greet" once and prints the greeting.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"

class guest : public KXproxy, public KXinterface {
 public:
  using KXproxy::KXproxy;
  ~guest() override { m_component->stop(); }  // should an exception have ended start

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { subscribe_synchronous("hello.greet"); }
  void startup_phase2(KXcomponent*) override {
    KXmessage message;
    message << "world";
    if (proxy_send(message) == 0) return;  // no answer
    m_greeted = message.m_header->msg_type == MSG_RSP;
    std::string text;  // the greeting, or of a MSG_ERR the reason
    message >> text;
    std::puts(text.c_str());
  }

  bool m_greeted = false;
};

int main() {
  try {
    KXclientComponent component("hello-proxy");
    guest user(&component);
    component.add_interface(&user);
    component.start(KXcomponent::CMP_START_AND_STOP);
    return user.m_greeted ? 0 : 1;
  } catch (const KXerror::error_e& error) {
    const bool unbound = error == KXerror::ERR_SOCKET_BIND;
    std::fprintf(stderr, "hello-proxy: %s\n", unbound ? strerror(errno) : "is hello-stub running?");
    return 1;
  }
}
