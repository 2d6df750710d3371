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

}  // namespace

peer::peer(std::string component_name, std::string mgmt_socket, std::string data_socket, pid_t process_id)
    : name(std::move(component_name)),
      mgmt_path(std::move(mgmt_socket)),
      data_path(std::move(data_socket)),
      pid(process_id),
      process(open_process(process_id)),
      mgmt(mgmt_path),
      data(data_path) {}

bool peer::has_ended() const {
  if (process.get() < 0) return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
  pollfd entry = {process.get(), POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}
