// Operator new as a part of the seam. Not for programs with an allocation checker's own entry points, like a
// fuzzer's.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "seam.h"

static std::atomic<long> blocks{0};

long seam::allocated_blocks() { return blocks; }

[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = !seam::has_failed(seam::NEW) && seam::fails(seam::NEW);
  void* const block = fails ? nullptr : std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  ++blocks;
  return std::memset(block, 0x5A, size);  // what a constructor leaves out shows
}

[[gnu::noinline]] void operator delete(void* block) noexcept {
  if (block != nullptr) --blocks;
  std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
