// The orderly end of the bus: every component is told to end, a few at a time, since what they all answer at
// once would overflow the core's queue and cost each of them a second's pause.
#ifndef SHUTDOWN_H
#define SHUTDOWN_H

#include "roster.h"

class bus_shutdown {
 public:
  static constexpr int interval_ms = 50;

  explicit bus_shutdown(roster& peers) : m_peers(peers) {}

  bool has_begun() const { return m_intervals > 0; }

  // To be called at the beginning and then in intervals: tells the next components. False when it was the
  // last time: those that have not left the bus by then are not waited for.
  bool step();

  // So many components have left the bus; the next may.
  void went(unsigned int count);

 private:
  static constexpr unsigned int group = 3;
  static constexpr int intervals = 61;  // three seconds, and the beginning

  void tell(std::size_t count);

  roster& m_peers;
  int m_intervals = 0;
};

#endif
