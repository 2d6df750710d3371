#include "peer.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

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
      is_known(from.is_known()),
      uid(from.uid),
      pid(from.pid),
      process(open_process(from.pid)),
      mgmt(mgmt_path),
      data(data_path) {}

bool peer::is_process_of(const sender& from) const {
  return !is_known || (from.uid == uid && (from.pid == pid || !is_alive()));
}

bool peer::is_alive() const {
  pollfd ended = {process.get(), POLLIN, 0};
  return ended.fd >= 0 && poll(&ended, 1, 0) == 0;
}
