#include "KXmessage.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "KXlog.h"

namespace {

constexpr int header_size = sizeof(msg_header_t);
constexpr std::size_t tag_width = 1;

static_assert(offsetof(msg_header_t, dst_siid) == 0 && offsetof(msg_header_t, src_siid) == 4 &&
                  offsetof(msg_header_t, msg_type) == 8 && offsetof(msg_header_t, cmd) == 9 &&
                  offsetof(msg_header_t, msg_id) == 10 && sizeof(msg_header_t) == 14,
              "the header is written and read in place");
static_assert(sizeof(void*) != 4 || sizeof(KXmessage) == 4 + sizeof(buffer_t) + 4,
              "on the device a message is its table, its buffer and its header pointer");

template <std::size_t entries>
const char* name_of(const char* const (&names)[entries], std::uint8_t code) {
  return code < entries ? names[code] : "unknown";
}

// Apart from the operators, which need no frame without it.
[[gnu::cold, gnu::noinline]] bool refuse() {
  KX_LOG_WARNING_IN("operator<<", "buffer full\n");
  return false;
}

}  // namespace

const char* const msg_type2str[5] = {"", "REQ", "RSP", "ERR", "SIG"};

const char* const mgmt_cmd2str[12] = {"",           "REG-COMPONENT",  "UNREG-COMPONENT", "REG-FUNCTION",
                                      "REG-SIGNAL", "UNREG-FUNCTION", "UNREG-SIGNAL",    "SUB-FUNCTION",
                                      "SUB-SIGNAL", "UNSUB-FUNCTION", "UNSUB-SIGNAL",    "KILL-COMPONENT"};

const char* msg_type_name(std::uint8_t msg_type) { return name_of(msg_type2str, msg_type); }
const char* mgmt_cmd_name(std::uint8_t cmd) { return name_of(mgmt_cmd2str, cmd); }

KXmessage::KXmessage() : m_header(new (data) msg_header_t()) { offset = header_size; }

KXmessage::KXmessage(const KXmessage& other)
    : buffer_t(other), m_header(reinterpret_cast<msg_header_t*>(data + offset - header_size)) {}

void KXmessage::operator=(const KXmessage& other) {
  if (this == &other) return;
  buffer_t::operator=(other);
  m_header = reinterpret_cast<msg_header_t*>(data + offset - header_size);
}

bool KXmessage::has_room(std::size_t needed) const {
  return (room() >= 0 && static_cast<std::size_t>(room()) >= needed) || refuse();
}

// A missing tag has its WARNING line, too.
void KXmessage::skip_tag() const {
  if (unread() > 0) {
    ++pos;
  } else {
    unsigned char tag = 0;
    buffer_t::operator>>(tag);
  }
}

#define TAGGED_OPERATORS(type, wire_type, tag)                                         \
  void KXmessage::operator<<(type value) {                                             \
    if (!has_room(tag_width + sizeof(type))) return;                                   \
    append_word(static_cast<unsigned char>(tag));                                      \
    append_word(static_cast<wire_type>(value));                                        \
  }                                                                                    \
  void KXmessage::operator>>(type& value) const {                                      \
    skip_tag();                                                                        \
    if (unread() < static_cast<int>(sizeof(type))) return buffer_t::operator>>(value); \
    value = static_cast<type>(take_word<wire_type>());                                 \
  }

TAGGED_OPERATORS(signed char, unsigned char, TAG_INT8)
TAGGED_OPERATORS(short, unsigned short, TAG_INT16)
TAGGED_OPERATORS(int, unsigned int, TAG_INT32)
TAGGED_OPERATORS(long long, unsigned long long, TAG_INT64)
TAGGED_OPERATORS(unsigned char, unsigned char, TAG_UINT8)
TAGGED_OPERATORS(unsigned short, unsigned short, TAG_UINT16)
TAGGED_OPERATORS(unsigned int, unsigned int, TAG_UINT32)
TAGGED_OPERATORS(unsigned long long, unsigned long long, TAG_UINT64)
TAGGED_OPERATORS(bool, unsigned char, TAG_BOOL)

#undef TAGGED_OPERATORS

void KXmessage::operator<<(const std::string& value) {
  if (!has_room(value.size() + 4)) return;
  append_word(static_cast<unsigned char>(TAG_STRING));
  buffer_t::operator<<(value);
}

void KXmessage::operator<<(const buffer_t& value) {
  // The tag would lengthen a message that is written into itself.
  if (&value == this) return KXmessage::operator<<(buffer_t(value));
  if (!has_room(static_cast<std::size_t>(value.size) + 3)) return;
  append_word(static_cast<unsigned char>(TAG_BUFFER));
  buffer_t::operator<<(value);
}

void KXmessage::operator<<(const char* value) { *this << std::string(value == nullptr ? "" : value); }

void KXmessage::operator>>(std::string& value) const {
  value.clear();
  skip_tag();
  buffer_t::operator>>(value);
}

void KXmessage::operator>>(buffer_t& value) const {
  value.size = 0;
  value.pos = 0;
  skip_tag();
  buffer_t::operator>>(value);
}

void KXmessage::operator>>(const std::string&) const {}
