// Reads the values of a management message's payload, checking what the stream operators do not: the tag, and
// that the value is there.
#ifndef PAYLOAD_H
#define PAYLOAD_H

#include <string>

#include "KXmessage.h"

class payload {
 public:
  explicit payload(const KXmessage& message) : m_message(message) {}

  bool take(std::string& text) {
    constexpr int count_width = 2;
    const unsigned char* bytes = m_message.data + m_message.offset + m_message.pos;
    if (!next_is(TAG_STRING, count_width + 1)) return false;
    const int count = bytes[1] | bytes[2] << 8;
    if (count == 0 || !next_is(TAG_STRING, count_width + count)) return false;
    m_message >> text;
    return text.find('\0') == std::string::npos;
  }

  // Whether nothing is left.
  bool is_at_end() const { return m_message.pos >= m_message.size; }

  bool take(unsigned int& value) {
    if (!next_is(TAG_UINT32, sizeof value)) return false;
    m_message >> value;
    return true;
  }

 private:
  // Whether this tag comes next, with so many bytes behind it.
  bool next_is(value_tag_e tag, int length) const {
    return m_message.size - m_message.pos > length && m_message.data[m_message.offset + m_message.pos] == tag;
  }

  const KXmessage& m_message;
};

#endif
