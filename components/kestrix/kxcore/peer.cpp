#include "peer.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "socket_address.h"

namespace {

int open_process(pid_t pid) {
#ifdef SYS_pidfd_open
  return pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
#else
  return -1;
#endif
}

unsigned long next_serial() {
  static unsigned long last = 0;
  return ++last;
}

}  // namespace

peer::peer(std::string component_name, std::string mgmt_socket, std::string data_socket, pid_t process_id)
    : serial(next_serial()),
      name(std::move(component_name)),
      mgmt_path(std::move(mgmt_socket)),
      data_path(std::move(data_socket)),
      pid(process_id),
      process(open_process(process_id)),
      mgmt(mgmt_path),
      data(data_path) {}

bool peer::is_unreachable(int probe) const {
  const sockaddr_un address = socket_address(mgmt_path);
  return connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
         (errno == ECONNREFUSED || errno == ENOENT);
}
