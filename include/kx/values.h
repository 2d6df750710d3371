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

#include <cstddef>

#include "KXmessage.h"
#include "kx/detail/codec.h"
#include "kx/reader.h"

namespace kx {

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
