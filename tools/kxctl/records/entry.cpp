#include "entry.h"

#include <arpa/inet.h>

#include <cstring>
#include <iterator>

std::optional<entry> entry::parse(std::string_view bytes) {
  entry parsed = {};
  parsed.bytes = bytes;
  const auto* const begin = reinterpret_cast<const unsigned char*>(bytes.data());
  if (!read_record(begin, bytes.size(), parsed.head, parsed.body)) return {};
  msg_header_t header = {};
  parsed.has_message = parsed.body.size() >= sizeof header;
  if (!parsed.has_message) return parsed;
  std::memcpy(&header, parsed.body.data(), sizeof header);
  parsed.dst_siid = ntohl(header.dst_siid);
  parsed.src_siid = ntohl(header.src_siid);
  parsed.type = header.msg_type;
  parsed.cmd = header.cmd;
  parsed.msg_id = ntohl(header.msg_id);
  parsed.payload = parsed.body.substr(sizeof header);
  return parsed;
}

const char* record_event_name(std::uint8_t event) {
  static const char* const names[] = {"unknown",  "SENT",       "QUEUED",   "DELIVERED", "REFUSED", "DROPPED",
                                      "RECEIVED", "COMPONENTS", "SERVICES", "EVENT",     "MARK"};
  return names[event < std::size(names) ? event : 0];
}
