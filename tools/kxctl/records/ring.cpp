#include "ring.h"

#include <algorithm>
#include <utility>

#include "amount.h"

ring::ring(const std::string& limit) {
  if (!limit.empty() && limit.back() == 's')
    m_span_ns = span_of(limit, "--ring");
  else
    m_max_bytes = static_cast<std::size_t>(std::min<std::uint64_t>(bytes_of(limit, "--ring"), most_bytes));
}

void ring::add(std::uint64_t time_ns, std::string packet) {
  m_newest_ns = time_ns;
  m_bytes += packet.size() + overhead;
  m_kept.push_back({time_ns, std::move(packet)});
  while (is_old(m_kept.front()) || m_bytes > m_max_bytes) {
    if (m_span_ns > 0 && !is_old(m_kept.front())) ++m_lost;
    m_bytes -= m_kept.front().packet.size() + overhead;
    m_kept.pop_front();
    if (m_kept.empty()) return;
  }
}

bool ring::is_old(const kept& what) const {
  return m_span_ns > 0 && what.time_ns < m_newest_ns && m_newest_ns - what.time_ns > m_span_ns;
}

std::string ring::take() {
  std::string all;
  for (const kept& each : m_kept)
    all += each.packet;
  m_kept.clear();
  m_bytes = 0;
  m_lost = 0;
  return all;
}
