// Decodes a datagram with every operator, in the order that the input chooses, and writes in between.
#include <string>

#include "KXmessage.h"
#include "feed.h"
#include "seam.h"

namespace {

// Writes the value, or reads into it, behind its tag or bare. What was written reads back as it was.
template <typename T>
void exchange(KXmessage& message, feed& input, T value) {
  const int size = message.size;
  switch (input.below(4)) {
    case 0:
      message >> value;
      return;
    case 1:
      message.buffer_t::operator>>(value);
      return;
    default:
      message << value;
  }
  if (message.size == size) return;
  const KXmessage copy = message;
  copy.pos = size;
  copy >> value;
  KXmessage again;
  again << value;
  REQUIRE(copy.pos == copy.size && again.size == message.size - size);
  REQUIRE(std::equal(again.data + 14, again.data + 14 + again.size, message.data + 14 + size));
}

template <typename T>
void number(KXmessage& message, feed& input) {
  exchange(message, input, input.value<T>());
}

void (*const operations[])(KXmessage&, feed&) = {
    number<signed char>,
    number<unsigned char>,
    number<short>,
    number<unsigned short>,
    number<int>,
    number<unsigned int>,
    number<long long>,
    number<unsigned long long>,
    [](KXmessage& message, feed& input) { exchange(message, input, input.below(2) == 1); },
    [](KXmessage& message, feed& input) {
      const std::vector<unsigned char> bytes = input.bytes(input.value<std::uint16_t>() % 3000);
      exchange(message, input, std::string(bytes.begin(), bytes.end()));
    },
    [](KXmessage& message, feed& input) {  // a text that fills it, but for a few bytes
      const int room = buffer_t::capacity - message.offset - message.size;
      exchange(message, input,
               std::string(static_cast<std::size_t>(std::max(room, 8)) - input.below(9), 'x'));
    },
    [](KXmessage& message, feed& input) {
      std::vector<unsigned char> bytes = input.bytes(input.value<std::uint16_t>() % 3000);
      exchange(message, input, buffer_t(bytes.data(), static_cast<int>(bytes.size())));
    },
    [](KXmessage& message, feed&) { message << message; },
    [](KXmessage& message, feed& input) { message.incr_pos(input.value<int>()); },
    [](KXmessage& message, feed& input) { message.incr_size(input.value<int>()); },
    [](KXmessage& message, feed&) { message = KXmessage(message); },
    [](KXmessage& message, feed&) { message >> std::string(); }};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  feed input(bytes, size);
  seam::reset();
  seam::trace_level(input.below(2) == 0 ? 3 : 4);
  KXmessage message;
  const std::vector<unsigned char> datagram = input.bytes(input.value<std::uint16_t>() % 2049);
  std::memset(message.data, 0, sizeof message.data);
  std::copy(datagram.begin(), datagram.end(), message.data);
  message.incr_size(static_cast<int>(datagram.size()) - static_cast<int>(sizeof(msg_header_t)));
  while (!input.done()) {
    operations[input.below(std::size(operations))](message, input);
    REQUIRE(0 <= message.pos && message.pos <= message.size);
    REQUIRE(message.offset + message.size <= buffer_t::capacity);
    REQUIRE(reinterpret_cast<unsigned char*>(message.m_header) == message.data + message.offset - 14);
  }
  return 0;
}
