// Decodes a datagram with every operator, in the order that the input chooses, and writes in between.
#include <string>

#include "KXmessage.h"
#include "feed.h"
#include "seam.h"

namespace {

using operation = void (*)(KXmessage&, feed&);

bool same(const KXmessage& a, const KXmessage& b) {
  return a.size == b.size && std::equal(a.data, a.data + a.offset + a.size, b.data);
}

std::size_t room(const KXmessage& message) {
  return static_cast<std::size_t>(buffer_t::capacity - message.offset - message.size);
}

// A value that is there is read whole, one that is not leaves its target alone.
template <typename T, bool tagged>
void read(KXmessage& message, feed& input) {
  const T before = input.value<unsigned char>() % 2 == 1 ? T(1) : T(0);
  T value = before;
  const int pos = message.pos;
  const int needed = tagged + static_cast<int>(sizeof value);
  const bool there = message.size - pos >= needed;
  if (tagged) {
    message >> value;
  } else {
    message.buffer_t::operator>>(value);
  }
  REQUIRE(there || value == before);
  REQUIRE(message.pos == (there ? pos + needed : std::min(pos + tagged, message.size)));
}

// What fits is written whole and reads back as it was, what does not fit changes nothing.
template <typename T>
void write_value(KXmessage& message, const T& value, std::size_t needed) {
  const KXmessage before = message;
  message << value;
  if (room(before) < needed) {
    REQUIRE(same(before, message));
    return;
  }
  REQUIRE(message.size == before.size + static_cast<int>(needed));
  KXmessage copy = message;
  copy.pos = before.size;
  T read_back = {};
  copy >> read_back;
  REQUIRE(read_back == value && copy.pos == copy.size);
}

template <typename T>
void write(KXmessage& message, feed& input) {
  write_value(message, static_cast<T>(input.value<T>()), 1 + sizeof(T));
}

void write_buffer(KXmessage& message, const buffer_t& value) {
  const int length = value.size;
  const bool fits = room(message) >= static_cast<std::size_t>(length + 3);
  const int size = message.size;
  message << value;
  REQUIRE(message.size == (fits ? size + length + 3 : size));
}

// A refused read leaves the text; a tagged one has emptied it by then.
template <bool tagged>
void read_string(KXmessage& message, feed&) {
  std::string text = "before";
  const int pos = message.pos;
  if (tagged) {
    message >> text;
  } else {
    message.buffer_t::operator>>(text);
  }
  REQUIRE(text == (tagged ? "" : "before") ||
          message.pos == pos + tagged + 3 + static_cast<int>(text.size()));
}

// What is read is appended; a tagged read has emptied the target by then.
template <bool tagged>
void read_buffer(KXmessage& message, feed& input) {
  KXmessage into;
  into << std::string(input.below(256) * 8, 'x');
  into.pos = into.size;
  const int kept = tagged ? 0 : into.size;
  const int pos = message.pos;
  if (tagged) {
    message >> into;
  } else {
    message.buffer_t::operator>>(into);
  }
  REQUIRE(into.pos == kept && into.offset + into.size <= buffer_t::capacity);
  REQUIRE(into.size == kept || into.size == kept + message.pos - pos - tagged - 2);
}

constexpr operation operations[] = {
    read<bool, true>,
    read<bool, false>,
    read<signed char, true>,
    read<signed char, false>,
    read<unsigned char, true>,
    read<unsigned char, false>,
    read<short, true>,
    read<short, false>,
    read<unsigned short, true>,
    read<unsigned short, false>,
    read<int, true>,
    read<int, false>,
    read<unsigned int, true>,
    read<unsigned int, false>,
    read<long long, true>,
    read<long long, false>,
    read<unsigned long long, true>,
    read<unsigned long long, false>,
    read_string<true>,
    read_string<false>,
    read_buffer<true>,
    read_buffer<false>,
    write<signed char>,
    write<unsigned char>,
    write<short>,
    write<unsigned short>,
    write<int>,
    write<unsigned int>,
    write<long long>,
    write<unsigned long long>,
    [](KXmessage& message, feed& input) { write_value(message, input.value<unsigned char>() % 2 == 1, 2); },
    [](KXmessage& message, feed& input) {
      const std::vector<unsigned char> bytes = input.bytes(input.value<std::uint16_t>() % 3000);
      write_value(message, std::string(bytes.begin(), bytes.end()), bytes.size() + 4);
    },
    [](KXmessage& message, feed& input) {  // a text that fills it, but for a few bytes
      const std::size_t length = std::max(room(message), std::size_t(8)) - input.below(9);
      write_value(message, std::string(length, 'x'), length + 4);
    },
    [](KXmessage& message, feed& input) {
      KXmessage value = message;
      value.size = std::min(value.size, input.value<std::uint16_t>() % 2048);
      write_buffer(message, value);
      write_buffer(message, message);
    },
    [](KXmessage& message, feed& input) { message.incr_pos(input.value<int>()); },
    [](KXmessage& message, feed& input) { message.incr_size(input.value<int>()); },
    [](KXmessage& message, feed&) {
      const KXmessage copy = message;
      message = KXmessage();
      message = copy;
    },
    [](KXmessage& message, feed&) { message >> std::string(); }};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

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
