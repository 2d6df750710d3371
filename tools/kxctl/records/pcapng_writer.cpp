#include <sys/utsname.h>

#include "pcapng.h"
#include "pcapng_format.h"
#include "printable.h"

namespace {

// Integers are of the machine that writes, as the format has it.
template <typename T>
void append(std::string& to, T value) {
  to.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void pad(std::string& to, std::size_t size) {
  to.append((pcapng::alignment - size % pcapng::alignment) % pcapng::alignment, '\0');
}

void append_option(std::string& to, std::uint16_t code, std::string_view value) {
  append(to, code);
  append(to, static_cast<std::uint16_t>(value.size()));
  to += value;
  pad(to, value.size());
}

void end_options(std::string& to) { append_option(to, pcapng::end_of_options, {}); }

void append_block(std::string& to, std::uint32_t type, std::string_view body) {
  const auto length = static_cast<std::uint32_t>(body.size() + pcapng::block_overhead);
  append(to, type);
  append(to, length);
  to += body;
  append(to, length);
}

std::string section() {
  std::string body;
  append(body, pcapng::byte_order_magic);
  append(body, std::uint16_t{1});  // version 1.0
  append(body, std::uint16_t{0});
  append(body, pcapng::unknown_length);
  utsname system = {};
  uname(&system);
  append_option(body, pcapng::section_system, std::string(system.sysname) + " " + system.release);
  append_option(body, pcapng::section_application, "kxctl");
  end_options(body);
  return body;
}

std::string interface(std::string_view name) {
  std::string body;
  append(body, pcapng::link_type);
  append(body, std::uint16_t{0});
  append(body, std::uint32_t{0});  // packets are whole
  append_option(body, pcapng::interface_name, name);
  append_option(body, pcapng::interface_resolution, "\x09");  // times are in ns
  end_options(body);
  return body;
}

// As the core sees it: what came to it, or what it handed on.
std::uint32_t direction(const entry& what) {
  const bool has_come = what.is_failure() || what.head.event == RECORD_RECEIVED;
  return has_come ? pcapng::inbound : what.is_of_message() ? pcapng::outbound : pcapng::no_direction;
}

}  // namespace

std::string pcapng_beginning() {
  std::string bytes;
  append_block(bytes, pcapng::section_block, section());
  append_block(bytes, pcapng::interface_block, interface("kxcore"));
  append_block(bytes, pcapng::interface_block, interface("kxcore-d"));
  return bytes;
}

void append_packet(std::string& to, const entry& what) {
  std::string body;
  append(body, std::uint32_t{what.is_of_message() && !what.is_management() ? 1U : 0U});
  append(body, static_cast<std::uint32_t>(what.head.time_ns >> 32));
  append(body, static_cast<std::uint32_t>(what.head.time_ns));
  append(body, static_cast<std::uint32_t>(what.bytes.size()));
  append(body, static_cast<std::uint32_t>(what.bytes.size()));
  body += what.bytes;
  pad(body, what.bytes.size());
  std::string flags;
  append(flags, direction(what));
  append_option(body, pcapng::packet_flags, flags);
  if (!what.head.reason.empty()) append_option(body, pcapng::comment, printable(what.head.reason));
  end_options(body);
  append_block(to, pcapng::packet_block, body);
}
