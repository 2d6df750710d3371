#include "echo.h"

#include <unistd.h>

#include "KXclientComponent.h"
#include "KXstub.h"
#include "support.h"

namespace {

constexpr char service_name[] = "kxbench.echo";

constexpr int header_size = 14;
constexpr int int_size = 5;         // tag and value
constexpr int string_overhead = 4;  // tag, count, final 00

class echo_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;

  void process_message(KXmessage& message) override {
    int number = 0;
    message >> number;
    message >> m_text;
    if (message.m_header->msg_type == MSG_SIG && ++m_signals % bench::stream.answered_at_once != 0) return;
    KXmessage response = make_request(number, m_text);
    response.m_header->dst_siid = message.m_header->src_siid;
    response.m_header->msg_type = MSG_RSP;
    response.m_header->cmd = message.m_header->cmd;
    response.m_header->msg_id = message.m_header->msg_id;
    connection_send(response);
  }

 private:
  std::string m_text;
  long m_signals = 0;
};

}  // namespace

std::unique_ptr<child_process> start_core() {
  auto core = std::make_unique<child_process>(std::vector<std::string>{sibling_program("kxcore")});
  if (!wait_until_bound(*core, "/tmp/kxcore/kxcore-d")) bench::fail("kxcore does not start");
  return core;
}

void serve_echo() {
  KXclientComponent component("kxbench-server");
  component.register_component();
  echo_stub echo(&component);
  echo.register_synchronous(service_name);
  component.wait(true);
}

std::string text_for(int datagram_size) {
  return std::string(static_cast<std::size_t>(datagram_size - header_size - int_size - string_overhead), 'x');
}

KXmessage make_request(int number, const std::string& text) {
  KXmessage request;
  request << number;
  request << text;
  return request;
}

void subscribe_when_offered(KXproxy& proxy) {
  for (int tries = 0;; ++tries) {
    try {
      proxy.subscribe_synchronous(service_name);
      return;
    } catch (const KXerror::error_e&) {
      if (tries == 10'000) bench::fail("the echo service does not appear");
      usleep(1000);
    }
  }
}

void echo_caller::operator()(long number) {
  KXmessage message = make_request(static_cast<int>(number), m_text);
  int back = -1;
  if (m_proxy.proxy_send(message) != 1) bench::fail("request %ld was not answered", number);
  message >> back;
  message >> m_answered;
  if (back != number || m_answered != m_text) bench::fail("request %ld has a wrong answer", number);
}
