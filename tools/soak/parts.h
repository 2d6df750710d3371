// What the parts of a soak, each a process of its own, have in common.
#ifndef PARTS_H
#define PARTS_H

#include <time.h>

#include <cstdint>
#include <random>
#include <string>

#include "KXproxy.h"

// A component's name, and that of the service it offers: its role, and its number from 0 on.
std::string numbered(const char* role, int number);

// The components that are killed call it, too; its responses are not timed.
constexpr int flooded_server = 0;

// The same wherever the soak is built, so that a seed repeats what each part draws.
using random_source = std::linear_congruential_engine<std::uint32_t, 48271, 0, 2147483647>;

// Waits for the service: they appear one after the other.
void subscribe(KXproxy& proxy, const std::string& service, KXconnection::interface_type_e type);

// Interrupts whatever this process waits in, a thousand times in a second.
class signal_storm {
 public:
  signal_storm();
  ~signal_storm() { timer_delete(m_timer); }
  signal_storm(const signal_storm&) = delete;
  signal_storm& operator=(const signal_storm&) = delete;

 private:
  timer_t m_timer = {};
};

#endif
