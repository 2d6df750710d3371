// Decodes a datagram with every operator, in the order that the input chooses, and writes in between.
#include <string>

#include "KXmessage.h"
#include "feed.h"
#include "seam.h"

namespace {

using operation = void (*)(KXmessage&, feed&);

std::vector<unsigned char> content(const buffer_t& of) {
  return {of.data + of.offset, of.data + of.offset + of.size};
}
bool operator==(const buffer_t& left, const buffer_t& right) { return content(left) == content(right); }

// What cannot be read whole leaves its target as it was, or empty.
template <typename T, bool tagged>
void read(KXmessage& message, feed& input) {
  const T before = input.value<unsigned char>() % 2 == 1 ? T(1) : T();
  T value = before;
  const int pos = message.pos;
  if (tagged) {
    message >> value;
  } else {
    message.buffer_t::operator>>(value);
  }
  const bool there = message.pos == pos + tagged + static_cast<int>(sizeof value);
  REQUIRE(there || (value == before && message.pos <= pos + tagged));
}

template <typename T, bool tagged>
void read_counted(KXmessage& message, feed&) {
  T value;
  if (tagged) {
    message >> value;
  } else {
    message.buffer_t::operator>>(value);
  }
}

// What fits reads back as it was, what does not fit changes nothing.
template <typename T>
void write_value(KXmessage& message, const T& value) {
  const KXmessage before = message;
  message << value;
  KXmessage copy = message;
  copy.pos = before.size;
  REQUIRE(std::equal(before.data, before.data + before.offset + before.size, message.data));
  if (message.size == before.size) return;
  T read_back = {};
  copy >> read_back;
  REQUIRE(read_back == value && copy.pos == copy.size);
}

template <typename T>
void write(KXmessage& message, feed& input) {
  write_value(message, static_cast<T>(input.value<T>()));
}

#define NUMBER(type) read<type, true>, read<type, false>, write<type>

constexpr operation operations[] = {
    NUMBER(signed char),
    NUMBER(unsigned char),
    NUMBER(short),
    NUMBER(unsigned short),
    NUMBER(int),
    NUMBER(unsigned int),
    NUMBER(long long),
    NUMBER(unsigned long long),
    read<bool, true>,
    read<bool, false>,
    read_counted<std::string, true>,
    read_counted<std::string, false>,
    read_counted<buffer_t, true>,
    read_counted<buffer_t, false>,
    [](KXmessage& message, feed& input) { write_value(message, input.below(2) == 1); },
    [](KXmessage& message, feed& input) {
      const std::vector<unsigned char> bytes = input.bytes(input.value<std::uint16_t>() % 3000);
      write_value(message, std::string(bytes.begin(), bytes.end()));
      write_value<buffer_t>(message,
                            {const_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size())});
    },
    [](KXmessage& message, feed& input) {  // a text that fills it, but for a few bytes
      const int room = buffer_t::capacity - message.offset - message.size;
      write_value(message, std::string(std::max(room, 8) - input.below(9), 'x'));
    },
    [](KXmessage& message, feed&) { message << message; },
    [](KXmessage& message, feed& input) { message.incr_pos(input.value<int>()); },
    [](KXmessage& message, feed& input) { message.incr_size(input.value<int>()); },
    [](KXmessage& message, feed&) { message = KXmessage(message); },
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
