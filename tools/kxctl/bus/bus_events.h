// What happens on the bus, as the core tells it by kxcore.events.
#ifndef KXCTL_BUS_EVENTS_H
#define KXCTL_BUS_EVENTS_H

#include <string>

#include "bus_client.h"

enum bus_event_e : std::uint8_t {
  EVENT_REGISTERED = 1,
  EVENT_GONE,
  EVENT_OFFERED,
  EVENT_WITHDRAWN,
  EVENT_SUBSCRIBED,
  EVENT_UNSUBSCRIBED
};

struct bus_event {
  std::uint8_t what;
  std::string component, service, details;
};

class bus_events {
 public:
  // From now on; throws failure when the core tells nothing.
  bus_events(bus_client& client, bus_client::time_point until);

  // The next event; false at the end of the time.
  bool next(bus_event& event, bus_client::time_point until) const;

 private:
  bus_client& m_client;
  std::uint32_t m_siid;
};

#endif
