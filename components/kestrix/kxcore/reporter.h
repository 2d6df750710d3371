// Tells what happens on the bus: to the person who watches the core and to the log; and to who listens, as
// events and as traffic.
#ifndef REPORTER_H
#define REPORTER_H

#include "bus_events.h"
#include "console.h"
#include "tally.h"
#include "traffic.h"

class reporter {
 public:
  // `verbose` writes all lines to standard output; without it only what goes wrong is written, to standard
  // error.
  explicit reporter(bool verbose);

  // One thing that happened to a component.
  void event(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // Something that went wrong.
  void problem(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // A message that is dropped, one more in `count`.
  void dropped(tally& count, const char* from, const char* reason);

  // Of what may happen for every datagram of a flood the first few cases are reported, then each doubling of
  // their number; whether this one is.
  static bool is_reported(unsigned long count);

  bus_events events;
  traffic monitors;

 private:
  const bool m_verbose;
  console m_console;
};

#endif
