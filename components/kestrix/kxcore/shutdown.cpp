#include "shutdown.h"

#include "management.h"

bool bus_shutdown::step() {
  const bool is_last = ++m_intervals == intervals;
  tell(is_last ? m_peers.size() : group);
  return !is_last;
}

void bus_shutdown::went(unsigned int count) {
  if (has_begun()) tell(count);
}

void bus_shutdown::tell(std::size_t count) {
  const KXmessage kill = make_management(MSG_SIG, CMD_KILL_COMPONENT, own_message_id);
  m_peers.for_each([&](peer& each) {
    if (count == 0 || each.is_told_to_end || each.is_gone) return;
    each.is_told_to_end = true;
    m_peers.send(each, each.mgmt, kill, nullptr);
    --count;
  });
}
