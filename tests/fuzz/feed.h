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
    const std::vector<unsigned char> taken = bytes(sizeof result);
    std::copy(taken.begin(), taken.end(), reinterpret_cast<unsigned char*>(&result));
    return result;
  }

  std::size_t below(std::size_t limit) { return value<std::uint8_t>() % limit; }

  std::vector<unsigned char> bytes(std::size_t wanted) {
    const std::uint8_t* const begin = m_at;
    m_at += std::min(wanted, m_left);
    m_left -= static_cast<std::size_t>(m_at - begin);
    return {begin, m_at};
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

// Before the first input, in every fuzz target.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  enter_private_bus();
  return 0;
}

#endif
