// The loads of kxbench over nng: requests and replies, and a pipeline with one for acknowledgements.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include <cstring>

#include "child_process.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: nngbench rtt|oneway N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  The loads of kxbench over nng, on sockets of the transport ipc.\n";

constexpr char requests[] = "ipc:///tmp/kxcore/nng";
constexpr char acknowledgements[] = "ipc:///tmp/kxcore/nng-acknowledgements";

void expect(int error) {
  if (error != 0) bench::fail("nng: %s", nng_strerror(error));
}

nng_socket open_socket(int (*open)(nng_socket*)) {
  nng_socket opened = NNG_SOCKET_INITIALIZER;
  expect(open(&opened));
  return opened;
}

void connect(nng_socket socket, const char* address) {
  int error;
  for (int tries = 0; (error = nng_dial(socket, address, nullptr, 0)) != 0 && tries < 10'000; ++tries)
    usleep(1000);
  expect(error);
}

nng_msg* receive(nng_socket from) {
  nng_msg* message = nullptr;
  expect(nng_recvmsg(from, &message, 0));
  return message;
}

void answer_requests() {
  const nng_socket service = open_socket(nng_rep0_open);
  expect(nng_listen(service, requests, nullptr, 0));
  for (;;)
    expect(nng_sendmsg(service, receive(service), 0));
}

void acknowledge_messages() {
  const nng_socket incoming = open_socket(nng_pull0_open);
  const nng_socket outgoing = open_socket(nng_push0_open);
  expect(nng_listen(outgoing, acknowledgements, nullptr, 0));
  expect(nng_listen(incoming, requests, nullptr, 0));
  for (long received = 1;; ++received) {
    nng_msg* message = receive(incoming);
    if (received % bench::stream.answered_at_once == 0) {
      expect(nng_sendmsg(outgoing, message, 0));
    } else {
      nng_msg_free(message);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, 1);
  const bool oneway = bench::is_oneway(options, usage);
  enter_private_bus();
  child_process server(oneway ? acknowledge_messages : answer_requests);  // before this process has threads

  const nng_socket outgoing = open_socket(oneway ? nng_push0_open : nng_req0_open);
  connect(outgoing, requests);
  const nng_socket incoming = oneway ? open_socket(nng_pull0_open) : outgoing;
  if (oneway) connect(incoming, acknowledgements);
  const auto size = static_cast<std::size_t>(options.size);
  bench::run(
      options, oneway,
      [&](long) {
        nng_msg* message = nullptr;
        expect(nng_msg_alloc(&message, size));
        std::memset(nng_msg_body(message), 'x', size);
        expect(nng_sendmsg(outgoing, message, 0));
      },
      [&](long) { nng_msg_free(receive(incoming)); });
  nng_close(outgoing);
  if (oneway) nng_close(incoming);
  return 0;
}
