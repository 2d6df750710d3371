// Round trips and one-way messages between two components through kxcore.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "KXstub.h"
#include "child_process.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: kxbench rtt N | oneway N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  rtt N         make N synchronous calls between two components through kxcore;\n"
    "                prints us_per_roundtrip=<float>\n"
    "  oneway N      send N one-way messages through kxcore, as fast as none is lost;\n"
    "                prints msgs_per_s=<float>\n"
    "  --size BYTES  size of each datagram, 27 to 2048; 64 without it\n"
    "  --pin CPU     keep all processes on one processor\n";

constexpr int header_size = 14;
constexpr int int_size = 5;         // tag and value
constexpr int string_overhead = 4;  // tag, count, final 00
constexpr int smallest_size = header_size + int_size + string_overhead + 4;

// Answers a request with its own payload, and acknowledges signals in groups.
class echo_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;

  void process_message(KXmessage& message) override {
    if (message.m_header->msg_type == MSG_SIG && ++m_signals % bench::stream.answered_at_once != 0) return;
    int number = 0;
    message >> number;
    message >> m_text;
    KXmessage response;
    response.m_header->dst_siid = message.m_header->src_siid;
    response.m_header->msg_type = MSG_RSP;
    response.m_header->cmd = message.m_header->cmd;
    response.m_header->msg_id = message.m_header->msg_id;
    response << number;
    response << m_text;
    connection_send(response);
  }

 private:
  std::string m_text;
  long m_signals = 0;
};

void serve() {
  KXclientComponent component("kxbench-server");
  component.register_component();
  echo_stub echo(&component);
  echo.register_synchronous("kxbench.echo");
  component.wait(true);
}

KXmessage make_request(int number, const std::string& text) {
  KXmessage request;
  request << number;
  request << text;
  return request;
}

// Makes synchronous calls, and checks each answer.
void measure_rtt(KXproxy& proxy, const bench::options& options, const std::string& text) {
  KXmessage message;
  std::string answered;
  bench::run(
      options, false, [&](long number) { message = make_request(static_cast<int>(number), text); },
      [&](long number) {
        int back = -1;
        if (proxy.proxy_send(message) != 1) bench::fail("request %ld was not answered", number);
        message >> back;
        message >> answered;
        if (back != number || answered != text) bench::fail("request %ld has a wrong answer", number);
      });
}

// Sends signals of a function's proxy by hand, which is what a stream of notifications is, and reads the
// acknowledgements; the last of them says that the last message has arrived.
class stream : public KXproxy {
 public:
  using KXproxy::KXproxy;

  void measure(const bench::options& options, const std::string& text) {
    bench::run(
        options, true,
        [&](long number) {
          KXmessage message = make_request(static_cast<int>(number), text);
          message.m_header->dst_siid = htonl(m_service_siid);
          message.m_header->msg_type = MSG_SIG;
          if (!connection_send(message)) bench::fail("message %ld was not sent", number);
        },
        [&](long number) {
          KXmessage message;
          int acknowledged = -1;
          if (!connection_receive(message)) bench::fail("message %ld did not arrive", number);
          message >> acknowledged;
          if (acknowledged != number) bench::fail("a message before %d is lost", acknowledged);
        });
  }
};

template <typename Proxy>
void subscribe(Proxy& proxy) {
  for (int tries = 0;; ++tries) {
    try {
      proxy.subscribe_synchronous("kxbench.echo");
      return;
    } catch (const KXerror::error_e&) {
      if (tries == 10'000) bench::fail("the echo service does not appear");
      usleep(1000);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, smallest_size);
  const std::string text(static_cast<std::size_t>(options.size - header_size - int_size - string_overhead),
                         'x');
  const bool oneway = bench::is_oneway(options, usage);
  enter_private_bus();

  child_process core(std::vector<std::string>{sibling_program("kxcore")});
  if (!wait_until_bound(core, "/tmp/kxcore/kxcore-d")) bench::fail("kxcore does not start");
  child_process server(serve);
  KXclientComponent component("kxbench-client");
  component.register_component();
  if (oneway) {
    stream sender(&component);
    subscribe(sender);
    sender.measure(options, text);
    sender.disconnect(true);
  } else {
    KXproxy proxy(&component);
    subscribe(proxy);
    measure_rtt(proxy, options, text);
    proxy.disconnect(true);
  }
  component.stop();
  return 0;
}
