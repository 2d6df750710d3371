// Prints the bytes of the messages that a component exchanges with kxcore when it offers a function and uses
// it itself: the header, then each value of the payload.
#include <cstdio>
#include <cstring>
#include <string>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"
#include "KXstub.h"

namespace {

void print_bytes(const unsigned char* bytes, int count) {
  for (int i = 0; i < count; ++i)
    std::printf(" %02x", bytes[i]);
}

// The length of a value in a payload, its tag included.
int length_of(const unsigned char* value) {
  switch (value[0]) {
    case TAG_INT8:
    case TAG_UINT8:
    case TAG_BOOL:
      return 2;
    case TAG_INT16:
    case TAG_UINT16:
      return 3;
    case TAG_INT32:
    case TAG_UINT32:
      return 5;
    case TAG_INT64:
    case TAG_UINT64:
      return 9;
    case TAG_STRING:
      return 3 + (value[1] | value[2] << 8);
    default:  // TAG_BUFFER
      return 3 + (value[1] << 8 | value[2]);
  }
}

void print(const char* way, const KXmessage& message) {
  const msg_header_t& header = *message.m_header;
  const bool management = message.data[7] == management_siid;
  std::printf("%s %s %s\n", way, msg_type_name(header.msg_type),
              management ? mgmt_cmd_name(header.cmd) : "of the application");
  int begin = 0;
  for (const int width : {4, 4, 1, 1, 4}) {
    std::printf(" ");
    print_bytes(message.data + begin, width);
    begin += width;
  }
  std::puts("");
  const unsigned char* const end = message.data + message.datagram_size();
  for (const unsigned char* value = message.data + begin; value < end; value += length_of(value)) {
    std::printf(" ");
    print_bytes(value, length_of(value));
    std::puts("");
  }
}

class showing_component : public KXclientComponent {
 public:
  using KXclientComponent::KXclientComponent;

  bool interconnect_service(KXconnection* connection, KXmessage& message) override {
    const bool done = KXclientComponent::interconnect_service(connection, message);
    if (done && message.m_header->msg_type == MSG_RSP) print("from kxcore:", message);
    return done;
  }
  int send_mgmt_message(KXmessage& message) override {
    print("to kxcore:", message);
    return KXclientComponent::send_mgmt_message(message);
  }
  int send_data_message(KXmessage& message) override {
    print("to kxcore-d:", message);
    return KXclientComponent::send_data_message(message);
  }
};

class doubling_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;

  void process_message(KXmessage& request) override {
    print("from kxcore-d:", request);
    short number = 0;
    request >> number;
    KXmessage response;
    response.m_header->dst_siid = request.m_header->src_siid;
    response.m_header->msg_type = MSG_RSP;
    response.m_header->cmd = request.m_header->cmd;
    response.m_header->msg_id = request.m_header->msg_id;
    response << static_cast<short>(2 * number);
    connection_send(response);
  }
};

class doubling_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& response) override {
    print("from kxcore-d:", response);
    m_component->sendKillMsgToSelf();
  }
};

class exchange : public KXinterface {
 public:
  explicit exchange(KXcomponent& component) : m_stub(&component), m_proxy(&component) {
    component.add_interface(this);
  }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override { m_stub.register_asynchronous("double"); }
  void startup_phase2(KXcomponent*) override {
    m_proxy.subscribe_asynchronous("double", nullptr);
    KXmessage request;
    request.m_header->cmd = 9;
    request << static_cast<short>(21);
    m_proxy.proxy_send(request);
  }

 private:
  doubling_stub m_stub;
  doubling_proxy m_proxy;
};

}  // namespace

int main() {
  showing_component component("maths");
  exchange application(component);
  component.start(KXcomponent::CMP_START_AND_LOOP);
}
