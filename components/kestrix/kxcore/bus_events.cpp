#include "bus_events.h"

#include <new>
#include <utility>

void bus_events::note(bus_event_e what, std::string_view component, std::string_view service,
                      std::string_view details) {
  if (what <= EVENT_UNSUBSCRIBED) ++m_generation;
  if (!m_is_heard || m_waiting.size() == max_waiting) return;
  try {
    m_waiting.push_back({what, std::string(component), std::string(service), std::string(details)});
  } catch (const std::bad_alloc&) {  // it is lost, as a signal may be
  }
}

bus_event bus_events::take() {
  bus_event oldest = std::move(m_waiting.front());
  m_waiting.pop_front();
  return oldest;
}
