#include "probe.h"

using buffer = seam_test;
using byte_list = std::vector<unsigned char>;
using std::to_string;

byte_list content(const buffer_t& b) { return {b.data + b.offset, b.data + b.offset + b.size}; }
bool operator==(const buffer_t& left, const buffer_t& right) { return content(left) == content(right); }
buffer_t holding(byte_list bytes) { return buffer_t(bytes.data(), static_cast<int>(bytes.size())); }

// Writes and reads `value`, behind its tag and bare, where there is room or data for 0 bytes up to all.
template <typename T>
void check_wire(const std::string& name, const char* tag_and_bytes, const T& value, const T& before) {
  const int counted = name == "std::string" ? 3 : name == "buffer_t" ? 2 : 9;
  for (const int tag : {0, 1}) {
    byte_list bytes = hex(tag_and_bytes);
    bytes.erase(bytes.begin(), bytes.begin() + 1 - tag);
    const int width = static_cast<int>(bytes.size());
    for (int size = 0; size <= width; ++size) {
      SCOPED_TRACE(name + ", tag " + to_string(tag) + ", bytes " + to_string(size));
      KXmessage full, message;
      full.size = 2034 - size;
      for (KXmessage* each : {&full, &message})
        tag == 1 ? *each << value : each->buffer_t::operator<<(value);
      EXPECT_EQ(bytes, content(message));
      EXPECT_EQ(size == width ? 2034 : 2034 - size, full.size);
      message.size = size;
      T target = before;
      tag == 1 ? message >> target : message.buffer_t::operator>>(target);
      const int start = std::min(tag, size), pos = start + (size - start < counted ? 0 : 2);
      EXPECT_TRUE(target == (size == width ? value : tag == 1 && counted < 9 ? T() : before));
      EXPECT_EQ(size == width ? width : pos, message.pos);
      const std::string room = to_string(full.size) + ", offset=14, requested size=" + to_string(width);
      const std::string bare = "(operator<<) - buffer::<< " + name + " - buffer full: size=" + room;
      EXPECT_EQ(size < width, seam::logged(tag == 1 ? "(operator<<) - buffer full\n" : bare));
      const std::string at = "not enough data: size=" + to_string(size) + ", pos=" + to_string(pos);
      EXPECT_EQ(size < width, seam::logged("(operator>>) - buffer::>> " + name + " - " + at));
      EXPECT_EQ(size == width ? 0 : size < tag ? 3 : 2, seam::times_logged("[WARNING] "));
      seam::clear_lines();
    }
  }
}

TEST_F(buffer, every_type_travels_whole_or_not_at_all) {
  check_wire<signed char>("int8_t", "01 FE", -2, 5);
  check_wire<unsigned char>("uint8_t", "02 FE", 254, 5);
  check_wire<short>("int16_t", "03 FF FE", -2, 5);
  check_wire<unsigned short>("uint16_t", "04 81 02", 0x8102, 5);
  check_wire<int>("int32_t", "05 FF FF FF FE", -2, 5);
  check_wire<unsigned int>("uint32_t", "06 81 02 03 04", 0x81020304, 5);
  check_wire<std::string>("std::string", "07 04 00 61 00 62 00", std::string("a\0b", 3), "x");
  check_wire<buffer_t>("buffer_t", "08 00 03 0A 0B 0C", holding({10, 11, 12}), buffer_t());
  check_wire<bool>("bool", "09 01", true, false);
  check_wire<long long>("int64_t", "0A FF FF FF FF FF FF FF FE", -2, 5);
  check_wire<unsigned long long>("uint64_t", "0B 81 02 03 04 05 06 07 08", 0x8102030405060708, 5);
}

TEST_F(buffer, limits_hold_against_impossible_lengths) {
  std::string text = "kept";
  const buffer_t uncounted = holding({0, 0, 'a'}), source = holding({0, 1, 7}),
                 empty = holding(byte_list(2049));
  buffer_t full = holding(byte_list(2048));
  for (const int n : {0, -3, 1, 2048})
    full.incr_size(n % 2048), full.incr_pos(n);
  uncounted >> text, source >> full, empty >> full;
  EXPECT_TRUE(text == "kept" && full.size == 2048 && full.pos == 2048 && uncounted.pos + source.pos == 4);
  EXPECT_TRUE(seam::logged("pos=2, str size=0") && seam::times_logged("[WARNING]") == 6);
}

TEST_F(buffer, embeds_a_message_in_copies_with_a_header_of_their_own) {
  KXmessage inner = make_message(0x01020304, 0x05060708, MSG_SIG, 0x0B, 0x0A0B0C0D);
  inner << static_cast<const char*>(nullptr);
  inner << inner;
  KXmessage copied(inner);
  copied << "ok";
  EXPECT_EQ(hex("1 2 3 4 5 6 7 8 4 B A B C D 7 1 0 0 8 0 4 7 1 0 0 7 3 0 6F 6B 0"), bytes_of(copied));
}
