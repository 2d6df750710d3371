// The loads of kxbench over ZeroMQ: requests and replies, and a pipeline with one for acknowledgements.
#include <zmq.h>

#include <cstdio>
#include <string>
#include <vector>

#include "child_process.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: zmqbench rtt|oneway N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  The loads of kxbench over ZeroMQ, on sockets of the transport ipc.\n";

constexpr char requests[] = "ipc:///tmp/kxcore/zmq";
constexpr char acknowledgements[] = "ipc:///tmp/kxcore/zmq-acknowledgements";

void expect(int result) {
  if (result < 0) bench::fail("ZeroMQ: %s", zmq_strerror(zmq_errno()));
}

class messenger {
 public:
  messenger(void* context, int type) : m_socket(zmq_socket(context, type)) {
    const int do_not_wait = 0;
    expect(zmq_setsockopt(m_socket, ZMQ_LINGER, &do_not_wait, sizeof do_not_wait));
  }
  ~messenger() { zmq_close(m_socket); }
  messenger(const messenger&) = delete;
  messenger& operator=(const messenger&) = delete;

  void bind(const char* address) { expect(zmq_bind(m_socket, address)); }
  void connect(const char* address) { expect(zmq_connect(m_socket, address)); }
  void send(const std::vector<char>& bytes) { expect(zmq_send(m_socket, bytes.data(), bytes.size(), 0)); }
  void send(zmq_msg_t& message) { expect(zmq_msg_send(&message, m_socket, 0)); }
  void receive(zmq_msg_t& message) { expect(zmq_msg_recv(&message, m_socket, 0)); }

 private:
  void* m_socket;
};

void answer_requests() {
  messenger service(zmq_ctx_new(), ZMQ_REP);
  service.bind(requests);
  for (zmq_msg_t message;;) {
    zmq_msg_init(&message);
    service.receive(message);
    service.send(message);
  }
}

void acknowledge_messages() {
  void* context = zmq_ctx_new();
  messenger incoming(context, ZMQ_PULL);
  messenger outgoing(context, ZMQ_PUSH);
  incoming.bind(requests);
  outgoing.bind(acknowledgements);
  zmq_msg_t message;
  zmq_msg_init(&message);
  for (long received = 1;; ++received) {
    incoming.receive(message);
    if (received % bench::stream.answered_at_once == 0) outgoing.send(message);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, 1);
  const bool oneway = bench::is_oneway(options, usage);
  enter_private_bus();
  child_process server(oneway ? acknowledge_messages : answer_requests);  // before this process has threads

  void* context = zmq_ctx_new();
  {
    messenger outgoing(context, oneway ? ZMQ_PUSH : ZMQ_REQ);
    outgoing.connect(requests);
    messenger acknowledged(context, ZMQ_PULL);
    if (oneway) acknowledged.connect(acknowledgements);
    messenger& incoming = oneway ? acknowledged : outgoing;

    const std::vector<char> request(static_cast<std::size_t>(options.size), 'x');
    zmq_msg_t answer;
    zmq_msg_init(&answer);
    bench::run(
        options, oneway, [&](long) { outgoing.send(request); }, [&](long) { incoming.receive(answer); });
    zmq_msg_close(&answer);
  }
  zmq_ctx_term(context);
  return 0;
}
