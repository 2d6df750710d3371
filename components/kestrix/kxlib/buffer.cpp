// Every check is made against the two invariants offset + size <= capacity and pos <= size before a byte is
// moved, so no value and no length found in a datagram reaches outside the storage. Words are moved byte by
// byte: the wire's byte order depends neither on the host's byte order nor on its alignment rules.
#include "buffer.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "KXlog.h"

namespace {

constexpr int length_width = 2;       // of the length or count in front of a buffer or string
constexpr int unknown_length = 9999;  // shown by a warning when not even the length is there

// The unsigned integer of a value's width, in which it travels.
template <typename T>
struct wire_word : std::make_unsigned<T> {};
template <>
struct wire_word<bool> {
  using type = unsigned char;
};
template <typename T>
using wire_word_t = typename wire_word<T>::type;

// Lengths are shown as an int, also those that no buffer could hold.
int shown_length(std::size_t length) {
  return static_cast<int>(std::min<std::size_t>(length, static_cast<std::size_t>(INT_MAX)));
}

static_assert(offsetof(buffer_t, data) == 0 && offsetof(buffer_t, offset) == 2048 &&
                  offsetof(buffer_t, size) == 2052 && offsetof(buffer_t, pos) == 2056 &&
                  sizeof(buffer_t) == 2060,
              "applications are compiled against this layout");

}  // namespace

buffer_t::buffer_t() : offset(0), size(0), pos(0) {}

buffer_t::buffer_t(unsigned char* bytes, int len) : buffer_t() {
  if (bytes == nullptr || len <= 0) return;
  if (len > capacity) {
    KX_LOG_WARNING("buffer::buffer_t : %d bytes do not fit into %d", len, capacity);
    return;
  }
  std::memcpy(data, bytes, static_cast<std::size_t>(len));
  size = len;
}

buffer_t::buffer_t(const buffer_t& other) : offset(other.offset), size(other.size), pos(other.pos) {
  std::memcpy(data, other.data, sizeof data);
}

buffer_t& buffer_t::operator=(const buffer_t& other) {
  if (this == &other) return *this;
  offset = other.offset;
  size = other.size;
  pos = other.pos;
  std::memcpy(data, other.data, sizeof data);
  return *this;
}

void buffer_t::incr_size(int n) {
  if (n <= 0) return;
  const int added = std::min(n, INT_MAX - size);
  size += added;
  if (room() >= 0) return;
  KX_LOG_WARNING("buffer::incr_size : size too large : set(%d)/max(%d)\n", size, capacity - offset);
  size = capacity - offset;
}

void buffer_t::incr_pos(int n) const {
  if (n <= 0) return;
  const int skipped = std::min(n, INT_MAX - pos);
  pos += skipped;
  if (pos <= size) return;
  KX_LOG_WARNING("buffer::incr_pos : pos larger then size : pos(%d)/size(%d)\n", pos, size);
  pos = size;
}

#define FIXED_WIDTH_OPERATORS(type, name)                                                              \
  void buffer_t::operator<<(type value) {                                                              \
    constexpr int width = sizeof(type);                                                                \
    if (room() < width) {                                                                              \
      KX_LOG_WARNING("buffer::<< " name " - buffer full: size=%d, offset=%d, requested size=%d", size, \
                     offset, width);                                                                   \
      return;                                                                                          \
    }                                                                                                  \
    append_word(static_cast<wire_word_t<type>>(value));                                                \
  }                                                                                                    \
  void buffer_t::operator>>(type& value) const {                                                       \
    if (unread() < static_cast<int>(sizeof(type))) {                                                   \
      KX_LOG_WARNING("buffer::>> " name " - not enough data: size=%d, pos=%d", size, pos);             \
      return;                                                                                          \
    }                                                                                                  \
    value = static_cast<type>(take_word<wire_word_t<type>>());                                         \
  }

FIXED_WIDTH_OPERATORS(bool, "bool")
FIXED_WIDTH_OPERATORS(unsigned char, "uint8_t")
FIXED_WIDTH_OPERATORS(signed char, "int8_t")
FIXED_WIDTH_OPERATORS(unsigned short, "uint16_t")
FIXED_WIDTH_OPERATORS(short, "int16_t")
FIXED_WIDTH_OPERATORS(unsigned int, "uint32_t")
FIXED_WIDTH_OPERATORS(int, "int32_t")
FIXED_WIDTH_OPERATORS(unsigned long long, "uint64_t")
FIXED_WIDTH_OPERATORS(long long, "int64_t")

#undef FIXED_WIDTH_OPERATORS

void buffer_t::operator<<(const buffer_t& value) {
  const int length = value.size;
  if (room() < length + length_width) {
    KX_LOG_WARNING("buffer::<< buffer_t - buffer full: size=%d, offset=%d, requested size=%d", size, offset,
                   length + length_width);
    return;
  }
  append_word(static_cast<std::uint16_t>(length));
  std::memcpy(data + offset + size, value.data + value.offset, static_cast<std::size_t>(length));
  size += length;
}

void buffer_t::operator>>(buffer_t& value) const {
  if (unread() < length_width) {
    KX_LOG_WARNING("buffer::>> buffer_t - not enough data: size=%d, pos=%d, buff size=%d", size, pos,
                   unknown_length);
    return;
  }
  const int length = take_word<std::uint16_t>();
  if (unread() < length || value.room() < length) {
    KX_LOG_WARNING("buffer::>> buffer_t - not enough data: size=%d, pos=%d, buff size=%d", size, pos, length);
    return;
  }
  std::memcpy(value.data + value.offset + value.size, data + offset + pos, static_cast<std::size_t>(length));
  value.size += length;
  pos += length;
}

void buffer_t::operator<<(const std::string& value) {
  const std::size_t needed = value.size() + length_width + 1;
  if (room() < shown_length(needed)) {
    KX_LOG_WARNING("buffer::<< std::string - buffer full: size=%d, offset=%d, requested size=%d", size,
                   offset, shown_length(needed));
    return;
  }
  unsigned char* to = data + offset + size;
  const std::size_t count = value.size() + 1;
  to[0] = static_cast<unsigned char>(count);
  to[1] = static_cast<unsigned char>(count >> 8);
  std::memcpy(to + length_width, value.c_str(), count);
  size += static_cast<int>(needed);
}

void buffer_t::operator>>(std::string& value) const {
  if (unread() < length_width + 1) {
    KX_LOG_WARNING("buffer::>> std::string - not enough data: size=%d, pos=%d, str size=%d", size, pos,
                   unknown_length);
    return;
  }
  const unsigned char* from = data + offset + pos;
  const int count = from[0] | from[1] << 8;
  pos += length_width;
  if (count == 0 || unread() < count) {
    KX_LOG_WARNING("buffer::>> std::string - not enough data: size=%d, pos=%d, str size=%d", size, pos,
                   count);
    return;
  }
  value.assign(reinterpret_cast<const char*>(from + length_width), static_cast<std::size_t>(count - 1));
  pos += count;
}
