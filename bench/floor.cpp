// The plainest bus with a core in the middle: the same hops between three processes with bare sockets and
// nothing else, waiting in the receive itself or in a poll before it.
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: floor rtt|rtt-poll|oneway|oneway-poll N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  rtt, rtt-poll        N round trips over a forwarding process, without and with a poll before each\n"
    "                       receive; prints us_per_roundtrip=<float>\n"
    "  oneway, oneway-poll  N messages over it, many of them under way, as those of kxbench;\n"
    "                       prints msgs_per_s=<float>\n";

// As kxcore makes its sockets: with room for more than the 11 datagrams that are usual, here for all that are
// under way. Otherwise the process in the middle and the server might wait for each other.
void lengthen_queues() {
  if (unshare(CLONE_NEWNET) != 0) bench::fail("cannot enter a network namespace of its own");
  std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 2 * bench::stream.window;
}

class endpoint {
 public:
  endpoint(const std::string& path, bool polls) : m_fd(socket(AF_UNIX, SOCK_DGRAM, 0)), m_polls(polls) {
    const sockaddr_un address = address_of(path);
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      bench::fail("cannot bind %s", path.c_str());
  }
  ~endpoint() { close(m_fd); }
  endpoint(const endpoint&) = delete;
  endpoint& operator=(const endpoint&) = delete;

  std::size_t receive(std::vector<char>& buffer) const {
    if (m_polls) {
      pollfd entry = {m_fd, POLLIN, 0};
      poll(&entry, 1, -1);
    }
    sockaddr_un from = {};
    socklen_t length = sizeof from;
    const ssize_t count =
        recvfrom(m_fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) bench::fail("receive failed");
    return static_cast<std::size_t>(count);
  }

  void send(const sockaddr_un& to, const std::vector<char>& buffer, std::size_t size) const {
    if (sendto(m_fd, buffer.data(), size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
      bench::fail("send failed");
    }
  }

  static sockaddr_un address_of(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
  }

 private:
  int m_fd;
  bool m_polls;
};

// The first byte says where a message goes: to the server, or back.
enum direction_e : char { FORTH, BACK };

struct paths {
  std::string client;
  std::string middle;
  std::string server;
};

void forward(const endpoint& middle, const paths& at) {
  const sockaddr_un client = endpoint::address_of(at.client);
  const sockaddr_un server = endpoint::address_of(at.server);
  for (std::vector<char> buffer(2048);;) {
    const std::size_t size = middle.receive(buffer);
    middle.send(buffer[0] == FORTH ? server : client, buffer, size);
  }
}

void serve(const endpoint& server, const paths& at, int answered_at_once) {
  const sockaddr_un middle = endpoint::address_of(at.middle);
  long received = 0;
  for (std::vector<char> buffer(2048);;) {
    const std::size_t size = server.receive(buffer);
    if (++received % answered_at_once != 0) continue;
    buffer[0] = BACK;
    server.send(middle, buffer, size);
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::options options = bench::parse(argc, argv, usage, 1);
  const bool polls = bench::take_suffix(options, "-poll");
  const bool oneway = bench::is_oneway(options, usage);
  enter_private_bus();
  lengthen_queues();

  const std::string base = "/tmp/kxcore/floor";
  const paths at = {base + "-client", base + "-middle", base + "-server"};
  {
    const endpoint client(at.client, polls);
    const endpoint middle(at.middle, polls);
    const endpoint server(at.server, polls);
    child_process forwarding([&] { forward(middle, at); });
    child_process serving([&] { serve(server, at, oneway ? bench::stream.answered_at_once : 1); });
    const sockaddr_un to = endpoint::address_of(at.middle);
    std::vector<char> buffer(2048, 'x');
    bench::run(
        options, oneway,
        [&](long) {
          buffer[0] = FORTH;
          client.send(to, buffer, static_cast<std::size_t>(options.size));
        },
        [&](long) { client.receive(buffer); });
  }
  for (const std::string& path : {at.client, at.middle, at.server})
    unlink(path.c_str());
  return 0;
}
