#include "socket_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>

#include "socket_address.h"

socket_file::socket_file(const std::string& path)
    : m_file(path.size() > max_socket_path ? -1 : open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
  struct stat file = {};
  if (!exists() || fstat(m_file.get(), &file) != 0) return;
  m_owner = file.st_uid;
  m_identity = {file.st_dev, file.st_ino};
  if (S_ISSOCK(file.st_mode)) return;
  m_file = unique_fd();
  errno = ENOTSOCK;
}

sockaddr_un socket_file::address() const {
  return socket_address("/proc/self/fd/" + std::to_string(m_file.get()));
}

int open_datagram() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }
