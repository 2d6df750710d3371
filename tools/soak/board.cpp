#include "board.h"

#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <new>

soak_board* board = nullptr;

namespace {

// The leading five bits and how far they are shifted.
unsigned int bucket_of(std::uint64_t ns) {
  if (ns < 16) return static_cast<unsigned int>(ns);
  const auto exponent = static_cast<unsigned int>(63 - __builtin_clzll(ns));
  return (exponent - 3) * 16 + static_cast<unsigned int>(ns >> (exponent - 4) & 15);
}

std::uint64_t least_of(unsigned int bucket) {
  if (bucket < 16) return bucket;
  return (16ull + bucket % 16) << (bucket / 16 - 1);
}

}  // namespace

void latency_histogram::add(std::uint64_t ns) {
  ++m_counts[bucket_of(ns)];
  ++m_count;
  std::uint64_t longest = m_longest;
  while (longest < ns && !m_longest.compare_exchange_weak(longest, ns))
    continue;
}

std::uint64_t latency_histogram::quantile(double part) const {
  const auto wanted = static_cast<std::uint64_t>(part * static_cast<double>(m_count));
  std::uint64_t below = 0;
  for (unsigned int i = 0; i < buckets; ++i) {
    below += m_counts[i];
    if (below > wanted) return least_of(i);
  }
  return m_longest;
}

bool set_up_board() {
  void* const shared =
      mmap(nullptr, sizeof(soak_board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return false;
  board = new (shared) soak_board;
  return true;
}

std::uint64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

void await(const std::atomic<int>& count, int wanted) {
  while (count < wanted)
    usleep(turn_us);
}

void await_begin() {
  while (!board->begun)
    usleep(turn_us);
}
