// Reads the values of a management payload, checking what the stream operators do not: the tag, and that the
// value is there.
#ifndef PAYLOAD_H
#define PAYLOAD_H

#include <string>

#include "KXmessage.h"

class payload {
 public:
  explicit payload(const KXmessage& message) : m_message(message) {}

  bool take(std::string& text) {
    constexpr int overhead = 4;  // tag, count, final 00
    return take_tagged(TAG_STRING, text) &&
           m_message.pos == m_begin + overhead + static_cast<int>(text.size()) &&
           text.find('\0') == std::string::npos;
  }

  bool take(unsigned int& value) {
    return take_tagged(TAG_UINT32, value) && m_message.pos == m_begin + 1 + static_cast<int>(sizeof value);
  }

 private:
  template <typename T>
  bool take_tagged(value_tag_e tag, T& value) {
    m_begin = m_message.pos;
    if (m_begin >= m_message.size || m_message.data[m_message.offset + m_begin] != tag) return false;
    m_message >> value;
    return true;
  }

  const KXmessage& m_message;
  int m_begin = 0;
};

#endif
