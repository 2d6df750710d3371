#include "record.h"

#include <algorithm>

namespace {

constexpr std::size_t max_text = 255;

class writer {
 public:
  explicit writer(unsigned char* to) : m_begin(to), m_next(to) {}

  void number(std::uint64_t value, unsigned int bytes) {
    while (bytes-- > 0)
      *m_next++ = static_cast<unsigned char>(value >> (8 * bytes));
  }
  void text(std::string_view value) {
    const std::string_view taken = value.substr(0, max_text);
    number(taken.size(), 1);
    m_next = std::copy(taken.begin(), taken.end(), m_next);
  }
  std::size_t size() const { return static_cast<std::size_t>(m_next - m_begin); }

 private:
  unsigned char* m_begin;
  unsigned char* m_next;
};

class reader {
 public:
  reader(const unsigned char* from, std::size_t size) : m_next(from), m_left(size) {}

  // 0, and not ok any more, when too little is there.
  std::uint64_t number(unsigned int bytes) {
    std::uint64_t value = 0;
    for (const char each : take(bytes))
      value = value << 8 | static_cast<unsigned char>(each);
    return value;
  }
  std::string_view text() { return take(static_cast<std::size_t>(number(1))); }
  bool is_ok() const { return m_ok; }
  std::size_t left() const { return m_left; }

 private:
  std::string_view take(std::size_t size) {
    m_ok = m_ok && size <= m_left;
    if (!m_ok) return {};
    const std::string_view taken(reinterpret_cast<const char*>(m_next), size);
    m_next += size;
    m_left -= size;
    return taken;
  }

  const unsigned char* m_next;
  std::size_t m_left;
  bool m_ok = true;
};

}  // namespace

std::size_t write_record_header(const record& from, unsigned char (&to)[record_max_header]) {
  writer header(to);
  header.number(record_version, 1);
  header.number(from.event, 1);
  header.number(0, 2);
  header.number(from.sequence, 4);
  header.number(from.lost, 4);
  header.number(from.time_ns, 8);
  header.number(from.monotonic_ns, 8);
  header.number(from.sent_ns, 8);
  header.number(static_cast<std::uint32_t>(from.pid), 4);
  header.number(from.flags, 1);
  for (const std::string_view text : {from.sender, from.receiver, from.service, from.reason})
    header.text(text);
  writer(to + 2).number(header.size(), 2);
  return header.size();
}

bool read_record(const unsigned char* bytes, std::size_t size, record& to, std::string_view& body) {
  reader header(bytes, size);
  if (header.number(1) != record_version) return false;
  to.event = static_cast<record_event_e>(header.number(1));
  const auto length = static_cast<std::size_t>(header.number(2));
  to.sequence = static_cast<std::uint32_t>(header.number(4));
  to.lost = static_cast<std::uint32_t>(header.number(4));
  to.time_ns = header.number(8);
  to.monotonic_ns = header.number(8);
  to.sent_ns = header.number(8);
  to.pid = static_cast<pid_t>(header.number(4));
  to.flags = static_cast<std::uint8_t>(header.number(1));
  for (std::string_view* const text : {&to.sender, &to.receiver, &to.service, &to.reason})
    *text = header.text();
  if (!header.is_ok() || length > size || length < size - header.left()) return false;
  body = {reinterpret_cast<const char*>(bytes) + length, size - length};
  return true;
}
