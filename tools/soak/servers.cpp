#include "servers.h"

#include <arpa/inet.h>

#include "KXclientComponent.h"
#include "exchange.h"
#include "parts.h"

namespace {

// Tells with a signal how many requests a server has had.
class request_count : public KXstub {
 public:
  using KXstub::KXstub;

  void announce() {
    KXmessage signal;
    signal.m_header->dst_siid = htonl(m_siid);
    signal.m_header->msg_type = MSG_SIG;
    signal << ++m_requests;
    connection_send(signal);
  }

 private:
  unsigned long long m_requests = 0;
};

class counting_echo : public echo {
 public:
  counting_echo(KXcomponent* component, request_count& count) : echo(component), m_count(count) {}
  using echo::process_message;

  void process_message(KXmessage& request) override {
    echo::process_message(request);
    m_count.announce();
  }

 private:
  request_count& m_count;
};

}  // namespace

void serve(const std::string& name, std::atomic<int>& ready) {
  KXclientComponent component(name.c_str(), nullptr);
  component.register_component();
  echo service(&component);
  service.register_synchronous(name.c_str());
  ++ready;
  component.wait(true);
}

void serve_and_count(const std::string& name, std::atomic<int>& ready) {
  const signal_storm storm;
  KXclientComponent component(name.c_str(), nullptr);
  component.register_component();
  request_count count(&component);
  count.register_signal(counting_service);
  counting_echo service(&component, count);
  service.register_synchronous(name.c_str());
  ++ready;
  component.wait(true);
}
