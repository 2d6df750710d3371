// What the processes of a soak share: their progress, and the latency of every request.
#ifndef BOARD_H
#define BOARD_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

// Durations in nanoseconds, in buckets that are at most 1/16 wide.
class latency_histogram {
 public:
  void add(std::uint64_t ns);

  // A duration that this part (0 to 1) of all do not reach, rounded down to its bucket; the longest.
  std::uint64_t quantile(double part) const;
  std::uint64_t longest() const { return m_longest; }

 private:
  static constexpr unsigned int buckets = 1024;

  std::atomic<std::uint32_t> m_counts[buckets] = {};
  std::atomic<std::uint64_t> m_count{0};
  std::atomic<std::uint64_t> m_longest{0};
};

struct soak_board {
  std::atomic<int> servers_ready{0};
  std::atomic<int> stopped_ready{0};
  std::atomic<int> queues_full{0};
  std::atomic<bool> begun{false};
  std::atomic<long> taken{0};  // requests that a caller has taken on itself
  std::atomic<long> answered{0};
  std::atomic<long> failed{0};
  std::atomic<long> flooded{0};  // datagrams of the flooding components
  std::atomic<long> counts{0};   // signals of the counting server
  latency_histogram latency;
};

// Null until it is set up; every process that is started afterwards has the same one.
extern soak_board* board;

// Whether the system gives the memory.
bool set_up_board();

// The clock of the latency.
std::uint64_t now_ns();

// For so long whoever waits for something sleeps before looking again.
constexpr useconds_t turn_us = 50'000;

// Wait until a count on the board has reached a number, and until the requests begin.
void await(const std::atomic<int>& count, int wanted);
void await_begin();

#endif
