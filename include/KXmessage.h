/// @file
/// Messages, and the vocabularies of their headers.
#ifndef KXMESSAGE_H
#define KXMESSAGE_H

#include <cstdint>
#include <string>
#include <type_traits>

#include "KXexport.h"
#include "buffer.h"

/// The kind of a message, in `msg_header_t::msg_type`.
enum msg_type_e : std::uint8_t { MSG_NONE = 0, MSG_REQ = 1, MSG_RSP = 2, MSG_ERR = 3, MSG_SIG = 4 };

/// The command of a management message, in `msg_header_t::cmd`.
enum mgmt_cmd_e : std::uint8_t {
  CMD_NONE = 0,
  CMD_REG_COMPONENT = 1,
  CMD_UNREG_COMPONENT = 2,
  CMD_REG_FUNCTION = 3,
  CMD_REG_SIGNAL = 4,
  CMD_UNREG_FUNCTION = 5,
  CMD_UNREG_SIGNAL = 6,
  CMD_SUB_FUNCTION = 7,
  CMD_SUB_SIGNAL = 8,
  CMD_UNSUB_FUNCTION = 9,
  CMD_UNSUB_SIGNAL = 10,
  CMD_KILL_COMPONENT = 11
};

/// The byte in front of each value of a payload.
enum value_tag_e : std::uint8_t {
  TAG_INT8 = 1,
  TAG_UINT8 = 2,
  TAG_INT16 = 3,
  TAG_UINT16 = 4,
  TAG_INT32 = 5,
  TAG_UINT32 = 6,
  TAG_STRING = 7,
  TAG_BUFFER = 8,
  TAG_BOOL = 9,
  TAG_INT64 = 10,
  TAG_UINT64 = 11
};

/// The names of the message types and management commands, indexed by their codes.
/// @{
extern KX_EXPORT const char* const msg_type2str[5];
extern KX_EXPORT const char* const mgmt_cmd2str[12];
/// @}

/// The name of a type or command as it was received: "unknown" for a code outside its table. Any thread.
/// @{
KX_EXPORT const char* msg_type_name(std::uint8_t msg_type);
KX_EXPORT const char* mgmt_cmd_name(std::uint8_t cmd);
/// @}

constexpr std::uint32_t management_siid = 1;   ///< the siid of both ends of a management message
constexpr std::uint32_t no_siid = 0xFFFFFFFF;  ///< the siid of a connection that has none

/// The routing header in front of every payload, as it travels: 14 bytes, no padding, network byte order.
/// Multi-byte fields are read with ntohl and written with htonl. It lies at any alignment in a byte array.
struct __attribute__((packed, may_alias)) msg_header_t {
  std::uint32_t dst_siid;  ///< service-instance id of the receiver
  std::uint32_t src_siid;  ///< service-instance id of the sender; 1 marks a management message
  std::uint8_t msg_type;   ///< msg_type_e
  std::uint8_t cmd;        ///< mgmt_cmd_e in a management message, else a number of the application's own
  std::uint32_t msg_id;    ///< a response carries the id of its request
};

/// One message of the bus, which is one datagram: the header, then a payload of tagged values.
///
/// The object holds the whole datagram (2048 bytes, of which 2034 are payload) in the layout in which it
/// travels; building, sending and receiving one never allocates. Values are written and read one per
/// statement, in the same order and with the same types at both ends: a reader does not compare the tag with
/// the type it reads. A value that does not fit is refused whole with a WARNING line; a value that is missing
/// leaves its target unchanged (strings and buffers: emptied) with a WARNING line, or two when its tag is
/// missing, too.
///
/// Wire format of a payload: for each value its tag byte (value_tag_e), then its encoding (see buffer_t).
///
/// A message is a value: a copy has its own storage and header, and it is not to be deleted as a buffer_t.
/// One thread at a time.
class KX_EXPORT KXmessage : public buffer_t {
 public:
  msg_header_t* m_header;  ///< the header, in the 14 bytes of `data` in front of the content

  /// An empty payload behind a header of zeros; the payload's storage is not cleared.
  KXmessage();
  /// Copies the whole datagram and the read cursor; the copy's header lies in its own storage.
  /// @{
  KXmessage(const KXmessage& other);
  void operator=(
      const KXmessage& other);  // NOLINT(misc-unconventional-assign-operator): returns nothing by design
  /// @}

  /// Appends the tag and the encoding of `value`; without room for both, nothing.
  /// @{
  virtual void operator<<(signed char value);
  virtual void operator<<(short value);
  virtual void operator<<(int value);
  virtual void operator<<(long long value);
  virtual void operator<<(unsigned char value);
  virtual void operator<<(unsigned short value);
  virtual void operator<<(unsigned int value);
  virtual void operator<<(unsigned long long value);
  virtual void operator<<(const std::string& value);
  virtual void operator<<(const buffer_t& value);  ///< of a message only the payload, not the header
  virtual void operator<<(bool value);
  virtual void operator<<(
      const char* value);  ///< as the std::string of the same text; null as the empty string
  /// @}

  /// Skips a tag, whatever it is, and decodes the value behind it into `value`. When too little is there,
  /// `value` stays as it is (a string or buffer is emptied).
  /// @{
  virtual void operator>>(signed char& value) const;
  virtual void operator>>(short& value) const;
  virtual void operator>>(int& value) const;
  virtual void operator>>(long long& value) const;
  virtual void operator>>(unsigned char& value) const;
  virtual void operator>>(unsigned short& value) const;
  virtual void operator>>(unsigned int& value) const;
  virtual void operator>>(unsigned long long& value) const;
  virtual void operator>>(std::string& value) const;
  virtual void operator>>(buffer_t& value) const;  ///< replaces the content of `value`
  virtual void operator>>(bool& value) const;
  virtual void operator>>(const std::string& value) const;  ///< does nothing
  /// @}

  /// A pointer to anything but characters would silently be written as a bool.
  template <typename T, typename = std::enable_if_t<!std::is_same<std::remove_cv_t<T>, char>::value>>
  void operator<<(T*) = delete;

  /// Bytes of the datagram: header and payload.
  int datagram_size() const { return static_cast<int>(sizeof(msg_header_t)) + size; }

 private:
  bool has_room(std::size_t needed) const;
  void skip_tag() const;
};

#endif
