#include "socket_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "socket_address.h"

namespace {

int open_path(const std::string& path) {
  if (path.size() <= max_socket_path) return open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  errno = ENAMETOOLONG;
  return -1;
}

}  // namespace

socket_file::socket_file(const std::string& path) : m_path(path), m_file(open_path(path)) {
  struct stat file = {};
  if (!exists() || fstat(m_file.get(), &file) != 0) return;
  m_identity = {file.st_uid, file.st_dev, file.st_ino};
  if (S_ISSOCK(file.st_mode)) return;
  m_file = unique_fd();
  errno = ENOTSOCK;
}

sockaddr_un socket_file::address() const {
  static const bool has_proc = access("/proc/self/fd", F_OK) == 0;
  return socket_address(has_proc ? "/proc/self/fd/" + std::to_string(m_file.get()) : m_path);
}

int open_datagram() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }
