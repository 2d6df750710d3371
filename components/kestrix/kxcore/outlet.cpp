#include "outlet.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

unique_fd::~unique_fd() {
  if (m_fd >= 0) close(m_fd);
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

int connect_datagram(const std::string& path) {
  if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const sockaddr_un address = address_of(path);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

outlet::outlet(const std::string& path)
    : m_socket(connect_datagram(path)), m_connected(m_socket.get() >= 0) {}

outlet::result_e outlet::try_send(const void* bytes, std::size_t size) {
  for (;;) {
    if (::send(m_socket.get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return SENT;
    if (errno == EINTR) continue;
    const bool no_room = errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM;
    return no_room ? QUEUED : GONE;
  }
}

bool outlet::has_room_for(unsigned long sender) const {
  const auto own = static_cast<std::size_t>(std::count_if(
      m_queue.begin(), m_queue.end(), [sender](const datagram& queued) { return queued.sender == sender; }));
  return own == 0 || own + m_queue.size() < max_queued;
}

outlet::result_e outlet::send(const void* bytes, std::size_t size, unsigned long sender) {
  if (m_queue.empty()) {
    const result_e result = try_send(bytes, size);
    if (result != QUEUED) return result;
  }
  if (!has_room_for(sender)) {
    ++m_lost;
    return FULL;
  }
  const auto* begin = static_cast<const unsigned char*>(bytes);
  m_queue.push_back({sender, {begin, begin + size}});
  return QUEUED;
}

outlet::result_e outlet::flush() {
  while (!m_queue.empty()) {
    const std::vector<unsigned char>& next = m_queue.front().bytes;
    const result_e result = try_send(next.data(), next.size());
    if (result != SENT) return result;
    m_queue.pop_front();
  }
  return SENT;
}

unsigned long outlet::take_lost() { return std::exchange(m_lost, 0); }

std::deque<datagram> outlet::take_queue() { return std::exchange(m_queue, {}); }
