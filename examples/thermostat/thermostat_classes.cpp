// The same thermostat, written with the classes of the library.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXstub.h"
#include "commands.h"

namespace {

class app_component : public KXclientComponent {
 public:
  using KXclientComponent::KXclientComponent;
  using KXclientComponent::last_refusal;
};

class int_signal : public KXstub {
 public:
  using KXstub::KXstub;

  void send(int value) {
    KXmessage signal;
    signal.m_header->dst_siid = htonl(m_siid);
    signal.m_header->msg_type = MSG_SIG;
    signal << value;
    connection_send(signal);
  }
};

class thermostat_stub : public KXstub {
 public:
  thermostat_stub(KXcomponent* component, int_signal& changed, int_signal& progress)
      : KXstub(component), m_changed(changed), m_progress(progress) {}
  using KXstub::process_message;

  void process_message(KXmessage& request) override {
    const msg_header_t& asked = *request.m_header;
    if (asked.msg_type != MSG_REQ) return;
    switch (asked.cmd) {
      case GET:
        return respond(asked, m_degrees);
      case SET:
        return set(request);
      case SELF_TEST:
        return start_test(asked);
      default:
        refuse(asked, "the service has no such command");
    }
  }

 private:
  static KXmessage reply_to(const msg_header_t& request, msg_type_e type) {
    KXmessage reply;
    reply.m_header->dst_siid = request.src_siid;
    reply.m_header->msg_type = type;
    reply.m_header->cmd = request.cmd;
    reply.m_header->msg_id = request.msg_id;
    return reply;
  }
  void respond(const msg_header_t& request, int value) {
    KXmessage reply = reply_to(request, MSG_RSP);
    reply << value;
    connection_send(reply);
  }
  void refuse(const msg_header_t& request, const char* reason) {
    KXmessage reply = reply_to(request, MSG_ERR);
    reply << reason;
    connection_send(reply);
  }

  void set(KXmessage& request) {
    constexpr int size_of_int = 5;
    const msg_header_t& asked = *request.m_header;
    if (request.size != size_of_int || request.data[request.offset] != TAG_INT32)
      return refuse(asked, "the arguments do not fit");
    int degrees = 0;
    request >> degrees;
    if (degrees < 5 || degrees > 30) return refuse(asked, "it is not between 5 and 30 degrees");
    m_degrees = degrees;
    m_changed.send(m_degrees);
    respond(asked, m_degrees);
  }

  void start_test(const msg_header_t& asked) {
    if (m_test) return refuse(asked, "a self-test is under way");
    m_test = asked;
    m_component->add_msec_timer(100, this, static_step, 0);
  }
  static int static_step(void* context, int /*cookie*/) {
    return static_cast<thermostat_stub*>(context)->step();
  }
  int step() {
    m_progress.send(m_percent += 25);
    if (m_percent < 100) return 0;
    m_percent = 0;
    respond(*m_test, 0);
    m_test.reset();
    return -1;
  }

  int_signal& m_changed;
  int_signal& m_progress;
  int m_degrees = 20;
  int m_percent = 0;
  std::optional<msg_header_t> m_test;
};

class thermostat : public KXinterface {
 public:
  explicit thermostat(KXcomponent& component) : m_component(component) { component.add_interface(this); }
  ~thermostat() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override {
    m_service.register_asynchronous("thermostat");
    m_changed.register_signal("thermostat.changed");
    m_progress.register_signal("thermostat.progress");
  }
  void startup_phase2(KXcomponent*) override {}

 private:
  KXcomponent& m_component;
  int_signal m_changed{&m_component};
  int_signal m_progress{&m_component};
  thermostat_stub m_service{&m_component, m_changed, m_progress};
};

}  // namespace

int main() {
  try {
    app_component component("thermostat");
    try {
      thermostat application(component);
      component.start(KXcomponent::CMP_START_AND_LOOP);
      return 0;
    } catch (const KXerror::error_e&) {
      std::fprintf(stderr, "thermostat: %s\n", component.last_refusal().c_str());
    }
  } catch (const KXerror::error_e&) {
    std::fprintf(stderr, "thermostat: %s\n", strerror(errno));
  }
  return 1;
}
