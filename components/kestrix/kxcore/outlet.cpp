#include "outlet.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "socket_address.h"

unique_fd::~unique_fd() {
  if (m_fd >= 0) close(m_fd);
}

int connect_datagram(const std::string& path) {
  if (path.size() > max_socket_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const sockaddr_un address = socket_address(path);
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

outlet::result_e outlet::send(const void* bytes, std::size_t size, unsigned long sender) {
  if (!has_queue()) {
    const result_e result = try_send(bytes, size);
    if (result != QUEUED) return result;
  }
  auto own = std::find_if(m_turns.begin(), m_turns.end(),
                          [sender](const waiting& each) { return each.sender == sender; });
  const bool is_first = own == m_turns.end();
  if (is_first ? m_queued >= 2 * max_queued : own->cost + m_queued >= max_queued) {
    ++m_lost;
    return FULL;
  }
  if (is_first) own = m_turns.insert(own, {sender, {}, 0});
  const auto* begin = static_cast<const unsigned char*>(bytes);
  own->messages.emplace_back(begin, begin + size);
  own->cost += size + cost_beside_bytes;
  m_queued += size + cost_beside_bytes;
  return QUEUED;
}

outlet::result_e outlet::flush() {
  while (has_queue()) {
    waiting& next = m_turns.front();
    const datagram& message = next.messages.front();
    const result_e result = try_send(message.data(), message.size());
    if (result != SENT) return result;
    next.cost -= message.size() + cost_beside_bytes;
    m_queued -= message.size() + cost_beside_bytes;
    next.messages.pop_front();
    if (next.messages.empty()) {
      m_turns.pop_front();
    } else {
      m_turns.splice(m_turns.end(), m_turns, m_turns.begin());
    }
  }
  return SENT;
}

unsigned long outlet::take_lost() { return std::exchange(m_lost, 0); }

std::vector<datagram> outlet::take_queue() {
  std::vector<datagram> given_up;
  for (waiting& each : std::exchange(m_turns, {}))
    std::move(each.messages.begin(), each.messages.end(), std::back_inserter(given_up));
  m_queued = 0;
  return given_up;
}
