// Round trips and one-way messages between two components through kxcore.
#include <arpa/inet.h>

#include <memory>
#include <string>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "child_process.h"
#include "echo.h"
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

void measure_rtt(KXproxy& proxy, const bench::options& options, const std::string& text) {
  echo_caller call(proxy, text);
  bench::run(
      options, false, [](long) {}, call);
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

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, smallest_datagram);
  const std::string text = text_for(options.size);
  const bool oneway = bench::is_oneway(options, usage);
  enter_private_bus();

  const std::unique_ptr<child_process> core = start_core();
  child_process server(serve_echo);
  KXclientComponent component("kxbench-client");
  component.register_component();
  if (oneway) {
    stream sender(&component);
    subscribe_when_offered(sender);
    sender.measure(options, text);
    sender.disconnect(true);
  } else {
    KXproxy proxy(&component);
    subscribe_when_offered(proxy);
    measure_rtt(proxy, options, text);
    proxy.disconnect(true);
  }
  component.stop();
  return 0;
}
