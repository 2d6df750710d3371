// What the processes of a soak share: their progress, and the latency of every request.
#ifndef BOARD_H
#define BOARD_H

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
  static constexpr int max_components = 1000;

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

#endif
