// One record of what passed the core, and the message in it.
#ifndef KXCTL_ENTRY_H
#define KXCTL_ENTRY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "KXmessage.h"
#include "record.h"

// Everything lies in the bytes that it was parsed from.
struct entry {
  std::string_view bytes;  // the record as it came
  record head;
  std::string_view body;

  bool has_message;  // the header is whole; without one its fields are 0, and the payload is empty
  std::uint32_t dst_siid;
  std::uint32_t src_siid;
  std::uint8_t type;
  std::uint8_t cmd;
  std::uint32_t msg_id;
  std::string_view payload;

  // Nothing when the bytes are no record, or one of another version.
  static std::optional<entry> parse(std::string_view bytes);

  bool is_management() const { return (head.flags & record_is_management) != 0; }

  // It tells of a message that went somewhere, or did not; not the state of the bus, an event or a mark.
  bool is_of_message() const { return head.event >= RECORD_SENT && head.event <= RECORD_RECEIVED; }

  // It tells of the bus as a whole, or of nothing but losses.
  bool is_of_bus() const { return !is_of_message() && head.event != RECORD_EVENT; }

  // It tells of a message that its receiver will not get.
  bool is_failure() const { return head.event == RECORD_REFUSED || head.event == RECORD_DROPPED; }

  // The receiver has it: it was handed on, or is the core itself.
  bool has_arrived() const {
    return head.event == RECORD_SENT || head.event == RECORD_DELIVERED || head.event == RECORD_RECEIVED;
  }

  bool is_request() const { return is_of_message() && has_message && type == MSG_REQ; }
  bool is_answer() const { return is_of_message() && has_message && (type == MSG_RSP || type == MSG_ERR); }

  // When it was sent, as well as it is known.
  std::uint64_t sent_ns() const { return head.sent_ns != 0 ? head.sent_ns : head.time_ns; }
};

// The names of events in capitals, indexed by them; "unknown" for others.
const char* record_event_name(std::uint8_t event);

#endif
