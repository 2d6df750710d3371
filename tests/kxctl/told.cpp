#include "told.h"

#include <utility>

namespace {

void append(std::string& to, std::uint64_t value, unsigned int bytes) {
  while (bytes-- > 0)
    to += static_cast<char>(value >> (8 * bytes));
}

}  // namespace

std::string told::datagram() const {
  std::string bytes;
  append(bytes, dst, 4);
  append(bytes, src, 4);
  append(bytes, type, 1);
  append(bytes, cmd, 1);
  append(bytes, id, 4);
  return bytes + payload;
}

std::string told::bytes() const {
  record header = {};
  header.event = event;
  header.sequence = sequence;
  header.lost = lost;
  header.time_ns = time_ns;
  header.monotonic_ns = monotonic_ns != 0 ? monotonic_ns : time_ns / 2;
  header.sent_ns = sent_ns;
  header.pid = 4711;
  header.flags = is_management ? record_is_management : 0;
  header.sender = from;
  header.receiver = to;
  header.service = service;
  header.reason = reason;
  unsigned char bytes[record_max_header];
  const std::size_t size = write_record_header(header, bytes);
  return std::string(reinterpret_cast<const char*>(bytes), size) + datagram();
}

told told::answer(std::uint8_t with) const {
  told reply = *this;
  reply.event = RECORD_SENT;
  std::swap(reply.from, reply.to);
  std::swap(reply.src, reply.dst);
  reply.type = with;
  reply.time_ns = time_ns + 1000;
  reply.sent_ns = 0;
  reply.reason.clear();
  return reply;
}

told make_told(record_event_e event) {
  told made;
  made.event = event;
  return made;
}

std::string text_payload(const std::string& text) {
  const std::size_t count = text.size() + 1;
  return std::string{'\x07', static_cast<char>(count), static_cast<char>(count >> 8)} + text + '\0';
}
