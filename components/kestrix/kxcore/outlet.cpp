#include "outlet.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "socket_file.h"

outlet::outlet(const socket_file& to) {
  if (!to.exists()) return;
  unique_fd socket(open_datagram());
  const sockaddr_un address = to.address();
  if (socket.get() < 0 ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return;
  m_socket = std::move(socket);
}

outlet::result_e outlet::try_send(const void* bytes, std::size_t size) {
  for (;;) {
    if (::send(m_socket.get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
      ++m_total.sent;
      m_total.sent_bytes += size;
      return SENT;
    }
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
  const bool has_room =
      (own == m_turns.end() ? 0 : own->cost) + cost_of(user) < max_queued && m_queued < 2 * max_queued;
  if (has_room && enqueue(own, sender, user, bytes, size)) return QUEUED;
  ++m_lost;
  ++m_total.lost;
  return FULL;
}

std::size_t outlet::cost_of(uid_t user) const {
  std::size_t cost = 0;
  for (const waiting& each : m_turns)
    if (each.user == user) cost += each.cost;
  return cost;
}

// False when there is no memory.
bool outlet::enqueue(std::list<waiting>::iterator own, unsigned long sender, uid_t user, const void* bytes,
                     std::size_t size) {
  const auto* begin = static_cast<const unsigned char*>(bytes);
  try {
    std::list<waiting> added;
    if (own == m_turns.end()) own = added.insert(added.end(), {sender, user, {}, 0});
    own->messages.emplace_back(begin, begin + size);
    m_turns.splice(m_turns.end(), added);
  } catch (const std::bad_alloc&) {
    return false;
  }
  own->cost += size + cost_beside_bytes;
  m_queued += size + cost_beside_bytes;
  m_total.highest_queue = std::max(m_total.highest_queue, m_queued);
  return true;
}

outlet::result_e outlet::flush(const delivery& delivered) {
  while (has_queue()) {
    waiting& next = m_turns.front();
    const datagram& message = next.messages.front();
    const result_e result = try_send(message.data(), message.size());
    if (result != SENT) return result;
    if (delivered) delivered(message, next.sender);
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

unsigned int outlet::unread() const {
  int bytes = 0;
  return ioctl(m_socket.get(), SIOCOUTQ, &bytes) == 0 ? static_cast<unsigned int>(bytes) : 0;
}

unsigned long outlet::take_lost() { return std::exchange(m_lost, 0); }

std::list<outlet::waiting> outlet::take_queue() {
  m_queued = 0;
  return std::exchange(m_turns, {});
}
