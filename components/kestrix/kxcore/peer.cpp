#include "peer.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

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
    : serial(next_serial()),
      name(std::move(component_name)),
      mgmt_path(from.path),
      data_path(data_socket),
      mgmt(mgmt_path),
      data(data_path),
      uid(from.is_known() ? from.uid : mgmt.owner()),
      pid(from.pid),
      process(open_process(from.pid)) {}

bool peer::shares_sockets_with(const peer& other) const {
  for (const outlet* own : {&mgmt, &data})
    if (own->identity() == other.mgmt.identity() || own->identity() == other.data.identity()) return true;
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
