#include "open_requests.h"

#include <algorithm>
#include <new>

namespace {

constexpr std::size_t first_size = 8;

}  // namespace

void open_requests::grow() {
  std::vector<open_request> larger(std::max(first_size, 2 * m_slots.size()));
  for (std::size_t i = 0; i < m_count; ++i)
    larger[i] = at(i);
  m_slots.swap(larger);
  m_begin = 0;
}

void open_requests::add(const open_request& request) {
  if (m_count == m_slots.size()) {
    try {
      if (m_count < max) grow();
    } catch (const std::bad_alloc&) {
      if (m_count == 0) return;
    }
  }
  if (m_count == m_slots.size()) {
    at(0).to = 0;
    trim();
  }
  at(m_count++) = request;
}

bool open_requests::close(std::uint32_t from, std::uint32_t to, std::uint32_t msg_id) {
  for (std::size_t i = m_count; i-- > 0;) {
    open_request& each = at(i);
    if (each.to != to || each.from != from || each.msg_id != msg_id) continue;
    each.to = 0;
    trim();
    return true;
  }
  return false;
}

// Lets go of the closed requests at both ends.
void open_requests::trim() {
  for (; m_count > 0 && at(0).to == 0; --m_count)
    m_begin = (m_begin + 1) % m_slots.size();
  while (m_count > 0 && at(m_count - 1).to == 0)
    --m_count;
}
