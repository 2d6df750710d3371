// The records that a monitor gets: what each holds, and its bytes (docs/introspection.md).
#ifndef RECORD_H
#define RECORD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

enum record_event_e : std::uint8_t {
  RECORD_SENT = 1,
  RECORD_QUEUED,
  RECORD_DELIVERED,
  RECORD_REFUSED,
  RECORD_DROPPED,
  RECORD_RECEIVED,
  RECORD_COMPONENTS,
  RECORD_SERVICES,
  RECORD_EVENT,
  RECORD_MARK
};

constexpr std::uint8_t record_version = 1;
constexpr std::uint8_t record_is_management = 1;  // flag
constexpr std::size_t record_texts_offset = 41;
constexpr std::size_t record_max_header = record_texts_offset + std::size_t{4} * 256;

struct record {
  record_event_e event;
  std::uint32_t sequence = 0;
  std::uint32_t lost = 0;
  std::uint64_t time_ns = 0;
  std::uint64_t monotonic_ns = 0;
  std::uint64_t sent_ns = 0;
  pid_t pid = 0;
  std::uint8_t flags = 0;
  std::string_view sender{};
  std::string_view receiver{};
  std::string_view service{};
  std::string_view reason{};  // of each text no more than 255 bytes go
};

// Writes the bytes before the body; how many.
std::size_t write_record_header(const record& from, unsigned char (&to)[record_max_header]);

// Reads a record; its texts and its body lie in `bytes`. False when it is none, or of another version.
bool read_record(const unsigned char* bytes, std::size_t size, record& to, std::string_view& body);

#endif
