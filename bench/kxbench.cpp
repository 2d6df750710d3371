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

// A receiver holds 11 unread datagrams; what is under way at any time stays below that.
constexpr int window = 8;
constexpr int acknowledged_at_once = 4;

// Answers a request with its own payload, and acknowledges signals in groups.
class echo_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;

  void process_message(KXmessage& message) override {
    if (message.m_header->msg_type == MSG_SIG && ++m_signals % acknowledged_at_once != 0) return;
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

double measure_rtt(KXproxy& proxy, long count, const std::string& text) {
  bench::progress progress(count);
  std::string answered;
  const double started = bench::now_seconds();
  for (long i = 0; i < count; ++i) {
    const int number = static_cast<int>(i);
    KXmessage message = make_request(number, text);
    int back = ~number;
    if (proxy.proxy_send(message) != 1) bench::fail("request %ld was not answered", i);
    message >> back;
    message >> answered;
    if (back != number || answered != text) bench::fail("request %ld has a wrong answer", i);
    progress.at(i);
  }
  return (bench::now_seconds() - started) * 1e6 / static_cast<double>(count);
}

// Sends signals of a function's proxy by hand, which is what a stream of notifications is, and reads the
// acknowledgements; the last of them says that the last message has arrived.
class stream : public KXproxy {
 public:
  using KXproxy::KXproxy;

  double measure(long count, const std::string& text) {
    bench::progress progress(count);
    long acknowledged = 0;
    const double started = bench::now_seconds();
    for (long sent = 0; sent < count || acknowledged < count;) {
      if (sent < count && sent - acknowledged < window) {
        KXmessage message = make_request(static_cast<int>(sent), text);
        message.m_header->dst_siid = htonl(m_service_siid);
        message.m_header->msg_type = MSG_SIG;
        if (!connection_send(message)) bench::fail("message %ld was not sent", sent);
        progress.at(++sent);
        continue;
      }
      KXmessage message;
      int number = -1;
      if (!connection_receive(message)) bench::fail("%ld messages of %ld arrived", acknowledged, count);
      message >> number;
      acknowledged += acknowledged_at_once;
      if (number != static_cast<int>(acknowledged - 1)) bench::fail("a message before %d is lost", number);
    }
    return static_cast<double>(count) / (bench::now_seconds() - started);
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
  if (options.mode != "rtt" && options.mode != "oneway") bench::fail("%s", usage);
  enter_private_bus();

  child_process core(std::vector<std::string>{sibling_program("kxcore")});
  if (!wait_until_bound(core, "/tmp/kxcore/kxcore-d")) bench::fail("kxcore does not start");
  child_process server(serve);
  KXclientComponent component("kxbench-client");
  component.register_component();
  if (options.mode == "rtt") {
    KXproxy proxy(&component);
    subscribe(proxy);
    measure_rtt(proxy, options.count / 10 + 1, text);  // warm up
    std::printf("us_per_roundtrip=%.3f\n", measure_rtt(proxy, options.count, text));
    proxy.disconnect(true);
  } else {
    stream sender(&component);
    subscribe(sender);
    const long rounded =
        (options.count + acknowledged_at_once - 1) / acknowledged_at_once * acknowledged_at_once;
    std::printf("msgs_per_s=%.0f\n", sender.measure(rounded, text));
    sender.disconnect(true);
  }
  component.stop();
  return 0;
}
