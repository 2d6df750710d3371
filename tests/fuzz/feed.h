// The bytes of a fuzzer's input, as a source of choices. At its end it yields zeros.
#ifndef TESTS_FUZZ_FEED_H
#define TESTS_FUZZ_FEED_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "private_bus.h"

class feed {
 public:
  feed(const std::uint8_t* bytes, std::size_t size) : m_at(bytes), m_left(size) {}

  bool done() const { return m_left == 0; }

  template <typename T>
  T value() {
    T result = {};
    read(reinterpret_cast<unsigned char*>(&result), sizeof result);
    return result;
  }

  std::size_t below(std::size_t limit) { return value<std::uint8_t>() % limit; }

  std::vector<unsigned char> bytes(std::size_t wanted) {
    std::vector<unsigned char> result(std::min(wanted, m_left));
    read(result.data(), result.size());
    return result;
  }

  // As many bytes as there are of those wanted; how many.
  std::size_t read(unsigned char* to, std::size_t wanted) {
    const std::size_t size = std::min(wanted, m_left);
    std::copy_n(m_at, size, to);
    m_at += size;
    m_left -= size;
    return size;
  }

 private:
  const std::uint8_t* m_at;
  std::size_t m_left;
};

// A finding: says what does not hold, and aborts.
#define REQUIRE(condition)                                                     \
  do {                                                                         \
    if (!(condition)) {                                                        \
      std::fprintf(stderr, "%s:%d: not %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                            \
    }                                                                          \
  } while (false)

// What is freed is held back no longer than it stays in the processor's cache, and few frames are noted of an
// allocation; with less than two no leak would be told. ASAN_OPTIONS has the last word.
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:malloc_context_size=2";
}

// Before the first input, in every fuzz target.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  enter_private_bus();
  return 0;
}

#endif
