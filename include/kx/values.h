/// @file
/// The values that messages carry, written and read with all checks.
///
/// What can travel, and as what (the bytes are on the page about the wire format):
///
///     bool                                 bool
///     signed and unsigned integers         the one of their width and sign; 64 bits as (unsigned) long long
///     enumerations                         their underlying integer
///     double                               its bits (IEEE 754) as an unsigned long long
///     std::string; written also char arrays, const char* (null as ""), std::string_view
///                                          string
///     buffer_t                             buffer
///     std::vector<T>                       unsigned int: the number of elements; then these
///     std::array, std::pair, std::tuple    their elements, nothing else
///     aggregates of 1 to 8 members         their members, nothing else
///
/// Not char, whose sign differs between processors. Members and elements may be all of these again. What is
/// read must be default-constructible.
#ifndef KX_VALUES_H
#define KX_VALUES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "KXmessage.h"
#include "kx/detail/fields.h"

namespace kx {

/// Reads the values of a message's payload, from its beginning on. Nothing is read beyond the message, and
/// nothing is taken that has another tag than the type that is wanted. One thread; `message` must outlive it.
class reader {
 public:
  explicit reader(const KXmessage& message) : m_message(message) { message.pos = 0; }

  /// Whether the next value has this tag and at least `width` bytes behind it.
  bool next_is(value_tag_e tag, std::size_t width) {
    m_wanted = tag;
    ++m_index;
    return left() > width && bytes()[0] == tag;
  }

  /// The bytes that are not read yet, the tag of the next value in front, and their number.
  /// @{
  const unsigned char* bytes() const { return m_message.data + m_message.offset + m_message.pos; }
  std::size_t left() const { return static_cast<std::size_t>(m_message.size - m_message.pos); }
  /// @}

  /// Takes a value that is there, as next_is has said.
  template <class T>
  void take(T& value) {
    m_message >> value;
  }

  /// Why what was read last could not be, in a sentence for people: "value 2 is a string, not an int".
  std::string reason() const {
    if (m_wanted == 0) return "there are more than " + std::to_string(m_index) + " values";
    const std::string value = "value " + std::to_string(m_index);
    if (left() == 0) return value + " is missing";
    if (bytes()[0] == m_wanted) return value + " is cut off";
    return value + " is " + name_of(bytes()[0]) + ", not " + name_of(m_wanted);
  }

  /// Whether everything has been read.
  bool at_end() {
    if (left() > 0) m_wanted = 0;
    return left() == 0;
  }

 private:
  static const char* name_of(unsigned int tag) {
    static constexpr const char* names[] = {
        "of an unknown type", "a signed char", "an unsigned char", "a short",
        "an unsigned short",  "an int",        "an unsigned int",  "a string",
        "a buffer",           "a bool",        "a long long",      "an unsigned long long"};
    return names[tag < std::size(names) ? tag : 0];
  }

  const KXmessage& m_message;
  unsigned int m_wanted = 0;  // tag of the value looked at last; 0 for the end
  unsigned int m_index = 0;   // of it, from 1
};

namespace detail {

template <class T>
constexpr bool is_character = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                              std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

template <class T>
constexpr bool is_integer = std::is_integral_v<T> && !std::is_same_v<T, bool> && !is_character<T>;

// The type of the library with the width and sign of T, and its tag.
template <std::size_t width, bool is_signed>
struct wire_integer;
#define KX_WIRE_INTEGER(name, value_tag)                      \
  template <>                                                 \
  struct wire_integer<sizeof(name), std::is_signed_v<name>> { \
    using type = name;                                        \
    static constexpr value_tag_e tag = value_tag;             \
  }
KX_WIRE_INTEGER(signed char, TAG_INT8);
KX_WIRE_INTEGER(unsigned char, TAG_UINT8);
KX_WIRE_INTEGER(short, TAG_INT16);
KX_WIRE_INTEGER(unsigned short, TAG_UINT16);
KX_WIRE_INTEGER(int, TAG_INT32);
KX_WIRE_INTEGER(unsigned int, TAG_UINT32);
KX_WIRE_INTEGER(long long, TAG_INT64);
KX_WIRE_INTEGER(unsigned long long, TAG_UINT64);
#undef KX_WIRE_INTEGER

// How a type travels: `least`, the bytes that every value of it takes at least; size, those that one takes;
// write, for which there is room; read, which says whether the value was there.
template <class T, class = void>
struct codec {
  static_assert(is_aggregate<T>, "values of this type cannot travel, see kx/values.h for those that can");

  static constexpr std::size_t least = least_of<codec>(field_types<T>{});
  static std::size_t size(const T& value) {
    return std::apply(
        [](const auto&... each) { return (codec<plain<decltype(each)>>::size(each) + ... + 0); },
        fields_of(value));
  }
  static void write(KXmessage& to, const T& value) {
    std::apply([&to](const auto&... each) { (codec<plain<decltype(each)>>::write(to, each), ...); },
               fields_of(value));
  }
  static bool read(reader& from, T& value) {
    return std::apply(
        [&from](auto&... each) { return (codec<plain<decltype(each)>>::read(from, each) && ...); },
        fields_of(value));
  }
};

// A value of fixed width that travels as a Wire.
template <class Wire, value_tag_e tag>
struct fixed_codec {
  static constexpr std::size_t least = 1 + sizeof(Wire);
  static constexpr std::size_t size(...) { return least; }
  static bool read(reader& from, Wire& value) {
    if (!from.next_is(tag, sizeof value)) return false;
    from.take(value);
    return true;
  }
};

template <>
struct codec<bool> : fixed_codec<bool, TAG_BOOL> {
  static void write(KXmessage& to, bool value) { to << value; }
};

template <class T>
using integer_wire = wire_integer<sizeof(T), std::is_signed_v<T>>;

template <class T>
struct codec<T, std::enable_if_t<is_integer<T>>>
    : fixed_codec<typename integer_wire<T>::type, integer_wire<T>::tag> {
  using wire = typename integer_wire<T>::type;
  static void write(KXmessage& to, T value) { to << static_cast<wire>(value); }
  static bool read(reader& from, T& value) {
    wire taken{};
    if (!fixed_codec<wire, integer_wire<T>::tag>::read(from, taken)) return false;
    value = static_cast<T>(taken);
    return true;
  }
};

template <class T>
struct codec<T, std::enable_if_t<std::is_enum_v<T>>> : codec<std::underlying_type_t<T>> {
  using wire = std::underlying_type_t<T>;
  static void write(KXmessage& to, T value) { codec<wire>::write(to, static_cast<wire>(value)); }
  static bool read(reader& from, T& value) {
    wire taken{};
    if (!codec<wire>::read(from, taken)) return false;
    value = static_cast<T>(taken);
    return true;
  }
};

template <>
struct codec<double> : fixed_codec<unsigned long long, TAG_UINT64> {
  static_assert(sizeof(double) == sizeof(unsigned long long), "a double travels as its 64 bits");
  static void write(KXmessage& to, double value) {
    unsigned long long bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    to << bits;
  }
  static bool read(reader& from, double& value) {
    unsigned long long bits = 0;
    if (!fixed_codec::read(from, bits)) return false;
    std::memcpy(&value, &bits, sizeof value);
    return true;
  }
};

inline std::string_view text_of(const char* text) { return text == nullptr ? "" : text; }
inline std::string_view text_of(std::string_view text) { return text; }

template <class T>
struct codec<T, std::enable_if_t<std::is_convertible_v<const T&, std::string_view>>> {
  static constexpr std::size_t least = 4;  // tag, count of characters, final 00
  static std::size_t size(const T& value) { return least + text_of(value).size(); }

  // Not by the operator for a std::string, which a text need not be.
  static void write(KXmessage& to, const T& value) {
    const std::string_view text = text_of(value);
    const std::size_t count = text.size() + 1;
    unsigned char* at = to.data + to.offset + to.size;
    *at++ = TAG_STRING;
    *at++ = static_cast<unsigned char>(count);
    *at++ = static_cast<unsigned char>(count >> 8);
    at = std::copy(text.begin(), text.end(), at);
    *at = 0;
    to.incr_size(static_cast<int>(least + text.size()));
  }

  static bool read(reader& from, std::string& value) {
    static_assert(std::is_same_v<T, std::string>, "a text is read into a std::string");
    if (!from.next_is(TAG_STRING, 3)) return false;
    const unsigned int count = from.bytes()[1] | static_cast<unsigned int>(from.bytes()[2]) << 8;
    if (count == 0 || from.left() < 3 + count) return false;
    from.take(value);
    return true;
  }
};

template <>
struct codec<buffer_t> {
  static constexpr std::size_t least = 3;  // tag, number of bytes
  static std::size_t size(const buffer_t& value) { return least + static_cast<std::size_t>(value.size); }
  static void write(KXmessage& to, const buffer_t& value) { to << value; }
  static bool read(reader& from, buffer_t& value) {
    if (!from.next_is(TAG_BUFFER, 2)) return false;
    const unsigned int count = static_cast<unsigned int>(from.bytes()[1]) << 8 | from.bytes()[2];
    if (from.left() < least + count) return false;
    value.offset = 0;  // all of its storage is free for what comes
    from.take(value);
    return true;
  }
};

template <class T>
struct codec<std::vector<T>> {
  static constexpr std::size_t least = codec<unsigned int>::least;
  static std::size_t size(const std::vector<T>& values) {
    std::size_t sum = least;
    for (const T& each : values)
      sum += codec<T>::size(each);
    return sum;
  }
  static void write(KXmessage& to, const std::vector<T>& values) {
    to << static_cast<unsigned int>(values.size());
    for (const T& each : values)
      codec<T>::write(to, each);
  }
  static bool read(reader& from, std::vector<T>& values) {
    static_assert(codec<T>::least > 0, "elements without a value cannot be counted");
    unsigned int count = 0;
    values.clear();
    if (!codec<unsigned int>::read(from, count)) return false;
    values.reserve(std::min<std::size_t>(count, from.left() / codec<T>::least));
    for (; count > 0; --count) {
      T element{};
      if (!codec<T>::read(from, element)) return false;
      values.push_back(std::move(element));
    }
    return true;
  }
};

}  // namespace detail

/// Appends the values to the payload of `message`; all of them, or none when there is no room for all. Writes
/// no line. @return whether they were written
template <class... T>
bool write(KXmessage& message, const T&... values) {
  const std::size_t needed = (detail::codec<T>::size(values) + ... + 0);
  const auto room = static_cast<std::size_t>(buffer_t::capacity - message.offset - message.size);
  if (needed > room) return false;
  (detail::codec<T>::write(message, values), ...);
  return true;
}

/// Reads the whole payload, whatever its cursor: these values, and none behind them. What does not fit leaves
/// the values that were read before it changed. Writes no line, and throws what the values' own memory takes.
/// @return whether it fits; if not, `from.reason()` says why
/// @{
template <class... T>
bool read(reader& from, T&... values) {
  return (detail::codec<T>::read(from, values) && ...) && from.at_end();
}
template <class... T>
bool read(const KXmessage& message, T&... values) {
  reader from(message);
  return read(from, values...);
}
/// @}

}  // namespace kx

#endif
