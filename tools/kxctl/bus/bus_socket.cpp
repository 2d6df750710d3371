#include "bus_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "datagram.h"
#include "shell.h"
#include "socket_address.h"

namespace {

// Calls `with` for the address of a path; 0, or errno.
template <typename Call>
int at_address(const std::string& path, const Call& with) {
  const sockaddr_un address = socket_address(path);
  return with(reinterpret_cast<const sockaddr*>(&address), socklen_t{sizeof address}) < 0 ? errno : 0;
}

int open_datagram() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

int try_bind(int fd, const std::string& path) {
  return at_address(path, [fd](auto... address) { return bind(fd, address...); });
}

pid_t sender_of(const msghdr& received) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&received);
  if (control == nullptr || control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_CREDENTIALS)
    return 0;
  ucred credentials = {};
  std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
  return credentials.pid;
}

}  // namespace

int probe_socket(const std::string& path) {
  const unique_fd probe(open_datagram());
  return at_address(path, [&](auto... address) { return connect(probe.get(), address...); });
}

bus_socket::bus_socket(const std::string& path) : m_path(path), m_fd(open_datagram()) {
  int error = try_bind(fd(), path);
  if (error == EADDRINUSE && probe_socket(path) == ECONNREFUSED) {
    unlink(path.c_str());
    error = try_bind(fd(), path);
  }
  if (error != 0)
    throw failure(NO_CORE,
                  "cannot make its socket " + path + ": " + strerror(error) +
                      (error == EACCES ? ". Take part as a user who may write to the directory" : ""));
  const int yes = 1;
  setsockopt(fd(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes);
}

bus_socket::~bus_socket() { unlink(m_path.c_str()); }

int bus_socket::send(const std::string& path, const KXmessage& message) const {
  const auto size = static_cast<std::size_t>(message.datagram_size());
  return at_address(path,
                    [&](auto... address) { return sendto(fd(), message.m_header, size, 0, address...); });
}

bool bus_socket::receive(KXmessage& message, pid_t& sender) const {
  message = KXmessage();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  for (ssize_t length = 0; length >= 0;) {
    iovec bytes = {message.m_header, buffer_t::capacity};
    msghdr header = {};
    header.msg_iov = &bytes;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    length = recvmsg(fd(), &header, MSG_CMSG_CLOEXEC);
    if (length < header_size) continue;
    take_datagram(message, static_cast<int>(length));
    sender = sender_of(header);
    return true;
  }
  return false;
}
