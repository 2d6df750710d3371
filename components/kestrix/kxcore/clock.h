// A clock of the system, in nanoseconds.
#ifndef CLOCK_H
#define CLOCK_H

#include <ctime>

#include <cstdint>

inline std::uint64_t in_ns(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

inline std::uint64_t now_ns(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return in_ns(now);
}

#endif
