#include "outlet.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <numeric>
#include <utility>

#include "socket_address.h"

int open_datagram() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

namespace {

int connect_datagram(const std::string& path) {
  if (path.size() > max_socket_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const sockaddr_un address = socket_address(path);
  const int fd = open_datagram();
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

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

outlet::result_e outlet::send(const void* bytes, std::size_t size, unsigned long sender, uid_t user) {
  if (!has_queue()) {
    const result_e result = try_send(bytes, size);
    if (result != QUEUED) return result;
  }
  auto own = std::find_if(m_turns.begin(), m_turns.end(),
                          [sender](const waiting& each) { return each.sender == sender; });
  try {
    if (has_room(own, user)) {
      enqueue(own, {sender, user, {}, 0}, bytes, size);
      return QUEUED;
    }
  } catch (const std::bad_alloc&) {  // there is no room, either
  }
  ++m_lost;
  return FULL;
}

// For another message of a sender, or the first one when that has none here.
bool outlet::has_room(std::list<waiting>::const_iterator own, uid_t user) const {
  if (own != m_turns.end()) return own->cost + m_queued < max_queued;
  const auto add = [user](std::size_t sum, const waiting& each) {
    return each.user == user ? sum + each.cost : sum;
  };
  return std::accumulate(m_turns.begin(), m_turns.end(), std::size_t{0}, add) < max_queued &&
         m_queued < 2 * max_queued;
}

void outlet::enqueue(std::list<waiting>::iterator own, const waiting& first, const void* bytes,
                     std::size_t size) {
  std::list<waiting> added;
  if (own == m_turns.end()) own = added.insert(added.end(), first);
  const auto* begin = static_cast<const unsigned char*>(bytes);
  own->messages.emplace_back(begin, begin + size);
  own->cost += size + cost_beside_bytes;
  m_queued += size + cost_beside_bytes;
  m_turns.splice(m_turns.end(), added);
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

std::list<outlet::waiting> outlet::take_queue() {
  m_queued = 0;
  return std::exchange(m_turns, {});
}
