// Records as the core would tell them, for tests.
#ifndef TOLD_H
#define TOLD_H

#include <cstdint>
#include <string>

#include "entry.h"

struct told {
  record_event_e event = RECORD_SENT;
  std::string from = "watch";
  std::string to = "sysmon";
  std::string service = "sysmon.metric";
  std::string reason{};
  std::uint8_t type = MSG_REQ;
  std::uint8_t cmd = 1;
  std::uint32_t dst = 2;
  std::uint32_t src = 3;
  std::uint32_t id = 0x1001;
  std::uint64_t time_ns = 1'000'000'000;
  std::uint64_t monotonic_ns = 0;  // 0: half of the time
  std::uint64_t sent_ns = 0;
  std::uint32_t sequence = 0;
  std::uint32_t lost = 0;
  bool is_management = false;
  std::string payload{};

  std::string bytes() const;             // of the record
  std::string datagram() const;          // the message in it
  told answer(std::uint8_t with) const;  // the answer to this request, sent and arrived a us after it
};

told make_told(record_event_e event);
std::string text_payload(const std::string& text);  // one string

// What outlives the parsing of its bytes.
class parsed {
 public:
  explicit parsed(const told& from) : m_bytes(from.bytes()), m_entry(*entry::parse(m_bytes)) {}
  parsed(const parsed&) = delete;
  parsed& operator=(const parsed&) = delete;
  const entry& operator*() const { return m_entry; }
  const entry* operator->() const { return &m_entry; }

 private:
  const std::string m_bytes;
  const entry m_entry;
};

#endif
