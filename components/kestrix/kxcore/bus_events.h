// What happens to the directory of the bus and to its components, noted where it happens for who listens.
#ifndef BUS_EVENTS_H
#define BUS_EVENTS_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

enum bus_event_e : std::uint8_t {
  EVENT_REGISTERED = 1,
  EVENT_GONE,
  EVENT_OFFERED,
  EVENT_WITHDRAWN,
  EVENT_SUBSCRIBED,
  EVENT_UNSUBSCRIBED,
  EVENT_REFUSED,
  EVENT_DOES_NOT_READ,
  EVENT_READS_AGAIN
};

struct bus_event {
  bus_event_e what;
  std::string component;
  std::string service;  // empty for what is of none
  std::string details;
};

class bus_events {
 public:
  void note(bus_event_e what, std::string_view component, std::string_view service = {},
            std::string_view details = {});

  // How often the directory has changed.
  std::uint32_t generation() const { return m_generation; }

  // Whether somebody listens; else nothing is kept.
  void listen(bool is_heard) { m_is_heard = is_heard; }

  bool has_some() const { return !m_waiting.empty(); }
  bus_event take();  // the oldest of them

 private:
  static constexpr std::size_t max_waiting = 4096;  // more than two components note that hold all they may

  std::uint32_t m_generation = 0;
  bool m_is_heard = false;
  std::deque<bus_event> m_waiting;
};

#endif
