#include "readable_wait.h"

#include <poll.h>

#include <algorithm>

#include "KXcomponent.h"

namespace {

constexpr unsigned int limit_seconds = 10;
constexpr unsigned int ms_per_second = 1000;
constexpr unsigned int ms_per_hour = 3600 * ms_per_second;

}  // namespace

readable_wait::readable_wait(int fd, bool limited)
    : m_fd(fd),
      m_left{limit_seconds, 0},
      m_left_ms(limit_seconds * ms_per_second),
      m_limit(limited ? &m_left : nullptr) {
  FD_ZERO(&m_readable);
  if (fd < FD_SETSIZE) FD_SET(fd, &m_readable);
}

int readable_wait::operator()() {
  return m_fd < FD_SETSIZE ? select(m_fd + 1, &m_readable, nullptr, nullptr, m_limit) : poll_instead();
}

// A set has no room for the descriptor.
int readable_wait::poll_instead() {
  struct pollfd entry = {m_fd, POLLIN, 0};
  if (m_limit == nullptr) return poll(&entry, 1, -1);
  const unsigned int begun = get_currentTime();
  const int ready = poll(&entry, 1, static_cast<int>(m_left_ms));
  const unsigned int elapsed = (get_currentTime() + ms_per_hour - begun) % ms_per_hour;
  m_left_ms -= std::min(m_left_ms, elapsed);
  return ready;
}
