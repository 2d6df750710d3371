#include <algorithm>
#include <utility>

#include "pcapng.h"
#include "pcapng_format.h"
#include "shell.h"

namespace {

constexpr std::uint32_t max_body = 1 << 20;  // of a block that is looked at; what is longer is none of ours

}  // namespace

pcapng_reader::pcapng_reader(std::istream& from, std::string name) : m_from(from), m_name(std::move(name)) {
  char type[4] = {};
  m_from.read(type, sizeof type);
  m_position = sizeof type;
  if (!m_from || number({type, sizeof type}, 0, 4) != pcapng::section_block)
    throw failure(REFUSED, m_name + " is no recording: it does not begin as pcapng does");
  begin_section();
}

bool pcapng_reader::next(std::string& packet) {
  for (;;) {
    m_block = m_position;
    if (m_from.peek() == std::istream::traits_type::eof()) return end();
    if (read_block(packet)) return true;
  }
}

// Nothing follows. Packets of something else do no harm beside ours.
bool pcapng_reader::end() const {
  if (m_has_ours || m_foreign_link < 0) return false;
  throw failure(REFUSED, m_name + " is a recording of something else: its link type is " +
                             std::to_string(m_foreign_link) + ", that of kestrix is " +
                             std::to_string(pcapng::link_type));
}

bool pcapng_reader::read_block(std::string& packet) {
  const std::uint32_t type = number(take(4), 0, 4);
  if (type == pcapng::section_block) {
    begin_section();
    return false;
  }
  const std::uint32_t length = checked(number(take(4), 0, 4));
  const std::uint32_t size = length - pcapng::block_overhead;
  const bool is_known = type == pcapng::interface_block || type == pcapng::packet_block;
  if (!is_known || size > max_body) {
    skip(size);
    check_trailer(length);
    return false;
  }
  const std::string body = take(size);
  check_trailer(length);
  if (type == pcapng::interface_block) add_interface(body);
  return type == pcapng::packet_block && has_packet(body, packet);
}

// Its byte order is told by a number behind the length.
void pcapng_reader::begin_section() {
  const std::string fixed = take(8);
  m_is_big_endian = false;
  m_is_big_endian = number(fixed, 4, 4) != pcapng::byte_order_magic;
  if (number(fixed, 4, 4) != pcapng::byte_order_magic) fail("the byte order is none of the two");
  const std::uint32_t length = checked(number(fixed, 0, 4));
  if (length < pcapng::block_overhead + 4) fail("the length is wrong");
  skip(length - pcapng::block_overhead - 4);
  check_trailer(length);
  m_links.clear();
}

std::uint32_t pcapng_reader::checked(std::uint32_t length) const {
  if (length < pcapng::block_overhead || length % pcapng::alignment != 0) fail("the length is wrong");
  return length;
}

void pcapng_reader::check_trailer(std::uint32_t length) {
  if (number(take(4), 0, 4) != length) fail("the two lengths differ");
}

void pcapng_reader::add_interface(std::string_view body) {
  if (body.size() < 2) fail("too little is there");
  m_links.push_back(static_cast<std::uint16_t>(number(body, 0, 2)));
}

// Whether it is a packet of ours.
bool pcapng_reader::has_packet(std::string_view body, std::string& packet) {
  if (body.size() < pcapng::packet_fixed) fail("too little is there");
  const std::uint32_t interface = number(body, 0, 4);
  if (interface >= m_links.size()) fail("the interface is unknown");
  if (m_links[interface] != pcapng::link_type) {
    m_foreign_link = m_links[interface];
    return false;
  }
  const std::uint32_t size = number(body, 12, 4);
  if (size > body.size() - pcapng::packet_fixed) fail("the packet is longer than its block");
  packet = body.substr(pcapng::packet_fixed, size);
  m_has_ours = true;
  return true;
}

std::uint32_t pcapng_reader::number(std::string_view bytes, std::size_t offset, unsigned int width) const {
  std::uint32_t value = 0;
  for (unsigned int i = 0; i < width; ++i) {
    const std::size_t at = offset + (m_is_big_endian ? i : width - 1 - i);
    value = value << 8 | static_cast<unsigned char>(bytes[at]);
  }
  return value;
}

std::string pcapng_reader::take(std::size_t size) {
  std::string bytes(size, '\0');
  m_from.read(bytes.data(), static_cast<std::streamsize>(size));
  m_position += static_cast<std::uint64_t>(m_from.gcount());
  if (!m_from) fail("it breaks off");
  return bytes;
}

void pcapng_reader::skip(std::size_t size) {
  m_from.ignore(static_cast<std::streamsize>(size));
  m_position += static_cast<std::uint64_t>(m_from.gcount());
  if (static_cast<std::size_t>(m_from.gcount()) < size) fail("it breaks off");
}

void pcapng_reader::fail(const std::string& why) const {
  throw failure(REFUSED, m_name + ": " + why + ", in the block at byte " + std::to_string(m_block));
}
