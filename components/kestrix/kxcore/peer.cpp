#include "peer.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "clock.h"
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

peer::peer(std::string component_name, const sender& from, const std::string& data_socket)
    : peer(std::move(component_name), from, data_socket, socket_file(from.path), socket_file(data_socket)) {}

peer::peer(std::string component_name, const sender& from, const std::string& data_socket,
           socket_file mgmt_socket, const socket_file& data_socket_file)
    : serial(next_serial()),
      name(std::move(component_name)),
      mgmt_path(from.path),
      label(std::string_view(mgmt_path).substr(std::min(std::strlen(bus_path), mgmt_path.size()))),
      data_path(data_socket),
      mgmt_file(std::move(mgmt_socket)),
      data_file(data_socket_file.identity()),
      uid(from.is_known() ? from.uid : mgmt_file.identity().owner),
      pid(from.pid),
      since_ns(now_ns(CLOCK_REALTIME)),
      process(open_process(from.pid)),
      mgmt(mgmt_file),
      data(data_socket_file) {}

bool peer::shares_sockets_with(const peer& other) const {
  for (const file_identity& own : {mgmt_file.identity(), data_file})
    if (own == other.mgmt_file.identity() || own == other.data_file) return true;
  return false;
}

bool peer::is_process_of(const sender& from) const {
  return from.uid == uid && (from.pid == pid || !is_alive());
}

bool peer::is_alive() const {
  if (process.get() < 0) return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
  pollfd ended = {process.get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 0;
}
