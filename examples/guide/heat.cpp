// Has the oven heat to the temperature in the first argument, and ends when it is reached.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"
#include "reason.h"

namespace {

// [proxy]
// Hands the responses to the reply interface that was given with the subscription.
class heat_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& response) override { m_reply_interface->process_reply(response); }
};
// [proxy]

class cook : public KXinterface, public KXproxyReplyInterface {
 public:
  cook(KXcomponent& component, int wanted) : m_component(component), m_heat(&component), m_wanted(wanted) {
    component.add_interface(this);
  }
  ~cook() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}

  // [request]
  void startup_phase1(KXcomponent*) override { m_heat.subscribe_asynchronous("oven.heat", this); }
  void startup_phase2(KXcomponent*) override {
    KXmessage request;
    request << m_wanted;
    m_heat.proxy_send(request);
    m_component.add_timer(60, this, static_give_up, 0);
  }

  void process_reply(KXmessage& response) override {
    if (response.m_header->msg_type == MSG_ERR) {
      std::string reason;
      response >> reason;
      std::printf("refused, %s\n", reason.c_str());
    } else {
      int degrees = 0;
      response >> degrees;
      std::printf("%d degrees reached\n", degrees);
      m_reached = true;
    }
    m_component.sendKillMsgToSelf();
  }
  // [request]

  bool m_reached = false;

 private:
  // [timer]
  static int static_give_up(void* context, int /*cookie*/) {
    std::puts("it takes too long");
    static_cast<cook*>(context)->m_component.sendKillMsgToSelf();
    return -1;
  }
  // [timer]

  KXcomponent& m_component;
  heat_proxy m_heat;
  const int m_wanted;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    KXclientComponent component("guide-heat");
    cook application(component, argc > 1 ? std::atoi(argv[1]) : 40);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return application.m_reached ? 0 : 1;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-heat: %s\n", reason_of(error));
    return 1;
  }
}
