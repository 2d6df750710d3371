#include "strangers.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "socket_address.h"

namespace {

bool is_socket_of(const std::string& path, uid_t uid) {
  struct stat file = {};
  return lstat(path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode) && file.st_uid == uid;
}

}  // namespace

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

strangers::strangers(reporter& report, std::string bus_directory)
    : m_report(report), m_bus_directory(std::move(bus_directory)), m_socket(open_datagram()) {
  if (m_socket.get() < 0) throw std::system_error(errno, std::generic_category(), "cannot create a socket");
}

bool strangers::is_on_bus(const std::string& path) const {
  return path.rfind(m_bus_directory, 0) == 0 && path.find("/../") == std::string::npos;
}

void strangers::answer(const sender& to, const peer* registered, const KXmessage& message) {
  if (!is_on_bus(to.path)) return;
  if (registered != nullptr && registered->uid != to.uid && !is_socket_of(to.path, to.uid)) return;
  if (offer(to.path, message) || errno != EAGAIN || !has_much_unread()) return;
  unique_fd fresh(open_datagram());
  if (fresh.get() < 0) return;
  m_socket = std::move(fresh);
  offer(to.path, message);
}

// Unread answers count against the send buffer of the socket that sent them: when it is full, another one
// takes its place.
bool strangers::has_much_unread() const {
  int unread = 0;
  int limit = 0;
  socklen_t size = sizeof limit;
  return ioctl(m_socket.get(), SIOCOUTQ, &unread) == 0 &&
         getsockopt(m_socket.get(), SOL_SOCKET, SO_SNDBUF, &limit, &size) == 0 && unread > limit / 2;
}

bool strangers::offer(const std::string& path, const KXmessage& message) const {
  const sockaddr_un address = socket_address(path);
  return sendto(m_socket.get(), message.m_header, static_cast<std::size_t>(message.datagram_size()),
                MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                sizeof address) >= 0;
}

void strangers::drop(peer* from, const sender& origin, const char* reason) {
  m_report.dropped(tally_of(from).dropped, name_of(from, origin).c_str(), reason);
}

std::string strangers::name_of(const peer* from, const sender& origin) {
  if (from != nullptr) return from->name;
  std::string path = origin.path;
  std::replace_if(path.begin(), path.end(), is_control, '?');
  return "[" + path + "]";
}
