#ifndef KX_BUFFER_H
#define KX_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "KXexport.h"

/// A byte buffer of fixed capacity that encodes and decodes values in the bus's format.
///
/// The storage lies inside the object: a buffer never allocates, and a copy is a full copy of its 2048 bytes.
/// The content is data[offset] to data[offset + size - 1]; values are appended behind it and read from its
/// front.
///
/// Wire format of each value (integers big-endian, signed ones in two's complement):
///
///     bool                            1 byte, 00 or 01 (any other value reads as true)
///     signed char, unsigned char      1 byte
///     short, unsigned short           2 bytes
///     int, unsigned int               4 bytes
///     long long, unsigned long long   8 bytes
///     buffer_t                        2 bytes length L, then L bytes
///     std::string                     2 bytes little-endian count n + 1, n characters, one 00
///
/// No operation throws or reports an error: a value that does not fit is refused whole, a read that finds too
/// little data leaves its target as it was, and each of them writes one WARNING line. Not safe for use by
/// several threads at once; reading counts as use, because it moves the cursor.
class KX_EXPORT buffer_t {
 public:
  static constexpr int capacity = 2048;  ///< bytes of storage

  unsigned char data[capacity];  ///< the storage; bytes outside the content are not initialised
  std::int32_t offset;           ///< where the content begins in `data`
  std::int32_t size;             ///< number of content bytes; offset + size never exceeds `capacity`
  mutable std::int32_t pos;      ///< read cursor, counted from `offset`; never exceeds `size`

  /// An empty buffer.
  buffer_t();

  /// Copies `len` bytes. Null, or a `len` of 0 or less, gives an empty buffer; so does a `len` above 2048,
  /// with a WARNING line.
  buffer_t(unsigned char* bytes, int len);

  /// Copies offset, size, cursor and all 2048 bytes.
  /// @{
  buffer_t(const buffer_t& other);
  buffer_t& operator=(const buffer_t& other);
  /// @}

  /// Takes `n` bytes that were placed behind the content by other means into the content; at most as many as
  /// the storage holds, with a WARNING line when `n` is larger. Nothing for an `n` of 0 or less.
  void incr_size(int n);

  /// Skips `n` unread bytes; at most all of them, with a WARNING line when `n` is larger. Nothing for an `n`
  /// of 0 or less.
  void incr_pos(int n) const;

  /// Appends the encoding of `value`; without room for all of it, nothing.
  /// @{
  void operator<<(bool value);
  void operator<<(unsigned char value);
  void operator<<(unsigned short value);
  void operator<<(unsigned int value);
  void operator<<(unsigned long long value);
  void operator<<(signed char value);
  void operator<<(short value);
  void operator<<(int value);
  void operator<<(long long value);
  void operator<<(const buffer_t& value);  ///< the whole content of `value`, whatever its read cursor
  void operator<<(const std::string& value);
  /// @}

  /// Decodes the value at the read cursor into `value` and moves the cursor behind it. When too little is
  /// there, `value` stays as it is, and so does the cursor, but for the length of a string or buffer.
  /// @{
  void operator>>(bool& value) const;
  void operator>>(unsigned char& value) const;
  void operator>>(unsigned short& value) const;
  void operator>>(unsigned int& value) const;
  void operator>>(unsigned long long& value) const;
  void operator>>(signed char& value) const;
  void operator>>(short& value) const;
  void operator>>(int& value) const;
  void operator>>(long long& value) const;
  void operator>>(buffer_t& value) const;  ///< appends to the content of `value`
  void operator>>(std::string& value) const;
  /// @}

  /// A pointer would silently be written as a bool.
  template <typename T>
  void operator<<(T*) = delete;
  void operator<<(std::nullptr_t) = delete;

 protected:
  int room() const { return capacity - offset - size; }  ///< bytes that can still be written
  int unread() const { return size - pos; }              ///< bytes that can still be read

  /// Appends and takes an unsigned integer as it travels, without checking that there is room or data for it.
  /// @{
  template <typename Word>
  void append_word(Word word) {
    unsigned char* to = data + offset + size;
    for (unsigned i = 0; i < sizeof word; ++i) {
      to[i] = static_cast<unsigned char>(word >> (8 * (sizeof word - 1 - i)));
    }
    size += static_cast<int>(sizeof word);
  }
  template <typename Word>
  Word take_word() const {
    const unsigned char* from = data + offset + pos;
    Word word = 0;
    for (unsigned i = 0; i < sizeof word; ++i) {
      word = static_cast<Word>(word | static_cast<Word>(from[i]) << (8 * (sizeof word - 1 - i)));
    }
    pos += static_cast<int>(sizeof word);
    return word;
  }
  /// @}
};

#endif
