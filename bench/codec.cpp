// What it costs to write a value into a message and to read it back, beside memcpy of the same bytes and
// beside a packing of the benchmark's payload that is written by hand.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "KXmessage.h"

namespace {

// With the number in front of it, the text that makes a datagram of 64 bytes.
const std::string payload_text(41, 'x');

buffer_t make_blob() {
  unsigned char bytes[64] = {};
  return buffer_t(bytes, sizeof bytes);
}

void rewind(KXmessage& message) {
  message.size = 0;
  message.pos = 0;
}

template <typename Value>
void encode(benchmark::State& state, const Value& value) {
  KXmessage message;
  for (auto _ : state) {
    rewind(message);
    message << value;
    benchmark::DoNotOptimize(message);
    benchmark::ClobberMemory();
  }
}

template <typename Value>
void decode(benchmark::State& state, const Value& value) {
  KXmessage message;
  message << value;
  Value read = value;
  for (auto _ : state) {
    message.pos = 0;
    message >> read;
    benchmark::DoNotOptimize(read);
    benchmark::ClobberMemory();
  }
}

template <typename Value>
void copy(benchmark::State& state, const Value& value) {
  KXmessage message;
  message << value;
  unsigned char to[buffer_t::capacity];
  auto size = static_cast<std::size_t>(message.size);
  for (auto _ : state) {
    benchmark::DoNotOptimize(size);
    std::memcpy(to, message.data + message.offset, size);
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
  }
}

void payload_with_operators(benchmark::State& state) {
  KXmessage message;
  int number = 0;
  std::string text;
  for (auto _ : state) {
    rewind(message);
    message << number;
    message << payload_text;
    benchmark::DoNotOptimize(message);
    benchmark::ClobberMemory();
    message >> number;
    message >> text;
    benchmark::DoNotOptimize(number);
    benchmark::DoNotOptimize(text);
    benchmark::ClobberMemory();
  }
}

// The payload's format written by hand, with the checks that a careful author makes.
class packing {
 public:
  bool write(std::uint32_t number, const std::string& text) {
    const std::size_t count = text.size() + 1;
    if (count > sizeof m_bytes - 8) return false;
    m_bytes[0] = TAG_INT32;
    number = __builtin_bswap32(number);
    std::memcpy(m_bytes + 1, &number, sizeof number);
    m_bytes[5] = TAG_STRING;
    m_bytes[6] = static_cast<unsigned char>(count);
    m_bytes[7] = static_cast<unsigned char>(count >> 8);
    std::memcpy(m_bytes + 8, text.c_str(), count);
    m_size = 8 + count;
    return true;
  }

  bool read(std::uint32_t& number, std::string& text) const {
    if (m_size < 9 || m_bytes[0] != TAG_INT32 || m_bytes[5] != TAG_STRING) return false;
    const std::size_t count = static_cast<std::size_t>(m_bytes[6] | m_bytes[7] << 8);
    if (count == 0 || count > m_size - 8) return false;
    std::memcpy(&number, m_bytes + 1, sizeof number);
    number = __builtin_bswap32(number);
    text.assign(reinterpret_cast<const char*>(m_bytes + 8), count - 1);
    return true;
  }

 private:
  unsigned char m_bytes[buffer_t::capacity - sizeof(msg_header_t)];
  std::size_t m_size = 0;
};

void payload_by_hand(benchmark::State& state) {
  packing packed;
  std::uint32_t number = 0;
  std::string text;
  for (auto _ : state) {
    bool done = packed.write(number, payload_text);
    benchmark::DoNotOptimize(packed);
    benchmark::ClobberMemory();
    done = packed.read(number, text) && done;
    benchmark::DoNotOptimize(number);
    benchmark::DoNotOptimize(text);
    benchmark::ClobberMemory();
    if (!done) state.SkipWithError("the payload does not pack");
  }
}

template <typename Value>
void add(const std::string& name, const Value& value) {
  benchmark::RegisterBenchmark((name + "/encode").c_str(), encode<Value>, value);
  benchmark::RegisterBenchmark((name + "/decode").c_str(), decode<Value>, value);
  benchmark::RegisterBenchmark((name + "/memcpy").c_str(), copy<Value>, value);
}

}  // namespace

int main(int argc, char** argv) {
  add("int32", 0x01020304);
  add("uint64", 0x0102030405060708ULL);
  add("bool", true);
  add("string16", std::string(16, 'x'));
  add("blob64", make_blob());
  benchmark::RegisterBenchmark("payload/operators", payload_with_operators);
  benchmark::RegisterBenchmark("payload/by_hand", payload_by_hand);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
