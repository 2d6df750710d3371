// A message and the bytes of its datagram.
#ifndef DATAGRAM_H
#define DATAGRAM_H

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "KXmessage.h"

constexpr int header_size = sizeof(msg_header_t);

// Gives `message` the payload of a datagram of `length` bytes that was received at its header; none when that
// is shorter than a header, or -1.
inline void take_datagram(KXmessage& message, int length) {
  message.size = 0;
  message.pos = 0;
  message.incr_size(length - header_size);
}

// The message whose datagram these bytes are; what exceeds a datagram is left out.
inline KXmessage message_of(const void* bytes, std::size_t length) {
  KXmessage message;
  const std::size_t taken = std::min(length, std::size_t{buffer_t::capacity});
  if (taken > 0) std::memcpy(message.m_header, bytes, taken);
  take_datagram(message, static_cast<int>(taken));
  return message;
}

#endif
