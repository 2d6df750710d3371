// Recordings: files of the form pcapng, as Wireshark reads them. Each packet is one record as the core gave
// it (docs/recording.md).
#ifndef KXCTL_PCAPNG_H
#define KXCTL_PCAPNG_H

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "entry.h"

// What a recording begins with: the section, and the interfaces "kxcore" and "kxcore-d".
std::string pcapng_beginning();

// Appends the record as a packet.
void append_packet(std::string& to, const entry& what);

// Reads a recording of either byte order. What it has besides records is skipped.
class pcapng_reader {
 public:
  // `name` is for messages. Throws failure when it does not begin as a recording does.
  pcapng_reader(std::istream& from, std::string name);

  // The next packet of a kestrix bus; false at the end. Throws failure where the file is broken, and at its
  // end when it holds only packets of something else.
  bool next(std::string& packet);

 private:
  bool read_block(std::string& packet);
  void begin_section();
  void add_interface(std::string_view body);
  bool has_packet(std::string_view body, std::string& packet);
  bool end() const;

  std::uint32_t checked(std::uint32_t length) const;
  void check_trailer(std::uint32_t length);
  std::uint32_t number(std::string_view bytes, std::size_t offset, unsigned int width) const;
  std::string take(std::size_t size);
  void skip(std::size_t size);
  [[noreturn]] void fail(const std::string& why) const;

  std::istream& m_from;
  const std::string m_name;
  bool m_is_big_endian = false;
  std::uint64_t m_position = 0;
  std::uint64_t m_block = 0;             // where the block begins that is read
  std::vector<std::uint16_t> m_links{};  // the link type of each interface of this section
  bool m_has_ours = false;
  int m_foreign_link = -1;  // of a packet that was left out
};

#endif
