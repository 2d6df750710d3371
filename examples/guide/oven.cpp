// An oven on the bus, which serves: a function that answers at once, a function that answers when the work is
// done, and a signal.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <list>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXstub.h"
#include "reason.h"

namespace {

constexpr std::uint8_t CMD_CHANGED = 1;

// [reply]
// An empty response, MSG_RSP or MSG_ERR, to the request with this header.
KXmessage reply_to(const msg_header_t& request, msg_type_e type) {
  KXmessage reply;
  reply.m_header->dst_siid = request.src_siid;
  reply.m_header->msg_type = type;
  reply.m_header->cmd = request.cmd;
  reply.m_header->msg_id = request.msg_id;
  return reply;
}
// [reply]

// [synchronous]
// "oven.temperature": the response holds the temperature in degrees Celsius.
class temperature_stub : public KXstub {
 public:
  temperature_stub(KXcomponent* component, const int& degrees) : KXstub(component), m_degrees(degrees) {}
  using KXstub::process_message;  // overriding one overload would hide the other

  void process_message(KXmessage& request) override {
    KXmessage reply = reply_to(*request.m_header, MSG_RSP);
    reply << m_degrees;
    connection_send(reply);
  }

 private:
  const int& m_degrees;
};
// [synchronous]

// [signal]
// "oven.changed": carries the temperature.
class changed_stub : public KXstub {
 public:
  using KXstub::KXstub;

  void send(int degrees) {
    KXmessage signal;
    signal.m_header->dst_siid = htonl(m_siid);  // its own siid stands for all subscribers
    signal.m_header->msg_type = MSG_SIG;
    signal.m_header->cmd = CMD_CHANGED;
    signal << degrees;
    connection_send(signal);
  }
};
// [signal]

// [asynchronous]
// "oven.heat": the request holds the temperature that is wanted; the response comes when it is reached.
class heat_stub : public KXstub {
 public:
  heat_stub(KXcomponent* component, int& degrees, changed_stub& changed)
      : KXstub(component), m_degrees(degrees), m_changed(changed) {}
  using KXstub::process_message;

  void process_message(KXmessage& request) override {
    int wanted = 0;
    request >> wanted;
    if (wanted < 0 || wanted > 250) {
      KXmessage refusal = reply_to(*request.m_header, MSG_ERR);
      refusal << "it is not between 0 and 250 degrees";
      connection_send(refusal);
      return;
    }
    const waiting_t asked = {*request.m_header, wanted};
    if (m_degrees >= wanted) {
      respond(asked);
      return;
    }
    if (m_waiting.empty()) m_component->add_msec_timer(100, this, static_heat, 0);
    m_waiting.push_back(asked);
  }
  // [asynchronous]

 private:
  struct waiting_t {
    msg_header_t request;
    int wanted;
  };

  // [timer]
  static int static_heat(void* context, int /*cookie*/) { return static_cast<heat_stub*>(context)->heat(); }

  // One degree more, ten times a second; the timer ends when nobody waits any more.
  int heat() {
    m_changed.send(++m_degrees);
    m_waiting.remove_if([this](const waiting_t& each) { return m_degrees >= each.wanted && respond(each); });
    return m_waiting.empty() ? -1 : 0;
  }
  // [timer]

  // [later]
  bool respond(const waiting_t& to) {
    KXmessage reply = reply_to(to.request, MSG_RSP);
    reply << m_degrees;
    return connection_send(reply);
  }
  // [later]

  int& m_degrees;
  changed_stub& m_changed;
  std::list<waiting_t> m_waiting;
};

// [phases]
class oven : public KXinterface {
 public:
  explicit oven(KXcomponent& component) : m_component(component) { component.add_interface(this); }

  // Takes the stubs off the bus before they go, should an exception have ended start.
  ~oven() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override {
    m_temperature.register_synchronous("oven.temperature");
    m_heat.register_asynchronous("oven.heat");
    m_changed.register_signal("oven.changed");
  }
  void startup_phase2(KXcomponent*) override {}

 private:
  KXcomponent& m_component;
  int m_degrees = 20;
  temperature_stub m_temperature{&m_component, m_degrees};
  changed_stub m_changed{&m_component};
  heat_stub m_heat{&m_component, m_degrees, m_changed};
};
// [phases]

}  // namespace

// [main]
int main() {
  try {
    KXclientComponent component("guide-oven");
    oven application(component);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-oven: %s\n", reason_of(error));
    return 1;
  }
}
// [main]
