/// @file
/// What a message holds, looked at before it is taken. A part of kx/values.h.
#ifndef KX_READER_H
#define KX_READER_H

#include <cstddef>
#include <iterator>
#include <string>

#include "KXmessage.h"

namespace kx {

/// Reads the values of a message's payload, from its beginning on. Nothing is read beyond the message, and
/// nothing is taken that has another tag than the type that is wanted. One thread; `message` must outlive it.
class reader {
 public:
  /// Begins at the beginning of the payload.
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

}  // namespace kx

#endif
