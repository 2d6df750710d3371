// How each type travels.
#ifndef KX_DETAIL_CODEC_H
#define KX_DETAIL_CODEC_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "KXmessage.h"
#include "kx/detail/fields.h"
#include "kx/reader.h"

namespace kx::detail {

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

}  // namespace kx::detail

#endif
