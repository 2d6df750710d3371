// Offers the function "hello.greet": the request holds a name, the response a greeting.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXstub.h"

class greeter : public KXstub, public KXinterface {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;
  ~greeter() override { m_component->stop(); }  // should an exception have ended start

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { register_synchronous("hello.greet"); }
  void startup_phase2(KXcomponent*) override {}

  void process_message(KXmessage& request) override {
    std::string name;
    request >> name;
    KXmessage response;
    response.m_header->dst_siid = request.m_header->src_siid;
    response.m_header->msg_type = MSG_RSP;
    response.m_header->cmd = request.m_header->cmd;
    response.m_header->msg_id = request.m_header->msg_id;
    response << "Hello, " + name + "!";
    connection_send(response);
  }
};

int main() {
  try {
    KXclientComponent component("hello-stub");
    greeter service(&component);
    component.add_interface(&service);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    const bool unbound = error == KXerror::ERR_SOCKET_BIND;
    std::fprintf(stderr, "hello-stub: %s\n", unbound ? strerror(errno) : "somebody else offers hello.greet");
    return 1;
  }
}
