#include <climits>
#include <memory>

#include "probe.h"

using buffer = seam_test;
using byte_list = std::vector<unsigned char>;
using std::to_string;

byte_list content(const buffer_t& b) { return {b.data + b.offset, b.data + b.offset + b.size}; }
bool operator==(const buffer_t& left, const buffer_t& right) { return content(left) == content(right); }
buffer_t holding(byte_list bytes) { return buffer_t(bytes.data(), static_cast<int>(bytes.size())); }

// Writes and reads `value`, behind its tag and bare, where there is room or data for 0 bytes up to all.
template <typename T>
void check_wire(const std::string& name, const std::string& tag_and_bytes, const T& value, const T& before) {
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
  check_wire<std::string>("std::string", "07 01 00 00", "", "x");
  check_wire<buffer_t>("buffer_t", "08 00 03 0A 0B 0C", holding({10, 11, 12}), buffer_t());
  check_wire<buffer_t>("buffer_t", "08 00 00", buffer_t(), buffer_t());
  check_wire<bool>("bool", "09 01", true, false);
  check_wire<long long>("int64_t", "0A FF FF FF FF FF FF FF FE", -2, 5);
  check_wire<unsigned long long>("uint64_t", "0B 81 02 03 04 05 06 07 08", 0x8102030405060708, 5);
  std::string bytes;
  for (int i = 0; i < 257; ++i)
    bytes += " 78";
  check_wire<std::string>("std::string", "07 02 01" + bytes + " 00", std::string(257, 'x'), "x");
  check_wire<buffer_t>("buffer_t", "08 01 01" + bytes, holding(byte_list(257, 'x')), buffer_t());
}

TEST_F(buffer, is_built_from_what_fits) {
  byte_list bytes(2049, 7);
  using row = std::tuple<unsigned char*, int, std::size_t>;
  for (const auto& [from, length, size] :
       {row{bytes.data(), 2048, 2048}, row{bytes.data(), 3, 3}, row{bytes.data(), 0, 0},
        row{bytes.data(), -1, 0}, row{nullptr, 5, 0}, row{bytes.data(), 2049, 0}}) {
    const auto built = std::make_unique<buffer_t>(from, length);
    EXPECT_EQ(std::pair(0, 0), std::pair(built->offset, built->pos)) << length;
    EXPECT_EQ(byte_list(size, 7), content(*built)) << length;
    EXPECT_EQ(length > 2048 ? 1 : 0, seam::times_logged("[WARNING]")) << length;
  }
}

TEST_F(buffer, grows_and_skips_as_far_as_it_can) {
  using row = std::tuple<int, int, int, int>;
  for (const auto& [n, size, pos, warnings] :
       {row{INT_MIN, 10, 4, 0}, row{0, 10, 4, 0}, row{6, 16, 10, 0}, row{7, 17, 10, 1},
        row{2024, 2034, 10, 1}, row{2025, 2034, 10, 2}, row{INT_MAX, 2034, 10, 2}}) {
    seam::clear_lines();
    KXmessage message;
    message.size = 10, message.pos = 4;
    message.incr_pos(n);
    message.incr_size(n);
    EXPECT_EQ(row(n, size, pos, warnings),
              row(n, message.size, message.pos, seam::times_logged("[WARNING]")));
  }
  EXPECT_TRUE(seam::logged("pos(2147483647)/size(10)\n")) << "without an overflow";
  EXPECT_TRUE(seam::logged("set(2147483647)/max(2034)\n")) << "without an overflow";
}

TEST_F(buffer, every_byte_but_zero_is_read_as_true) {
  for (const unsigned char byte : byte_list{0, 1, 2, 128, 255}) {
    bool tagged = byte == 0, bare = tagged;
    KXmessage message;
    message << byte;
    message >> tagged;
    message.pos = 1;
    message.buffer_t::operator>>(bare);
    EXPECT_EQ(std::pair(byte != 0, byte != 0), std::pair(tagged, bare)) << int{byte};
  }
}

TEST_F(buffer, is_read_behind_what_the_target_holds_as_far_as_there_is_room) {
  buffer_t target = holding({8, 9});
  target.pos = 1;
  holding({0, 2, 10, 11}) >> target;
  EXPECT_EQ(byte_list({8, 9, 10, 11}), content(target));
  EXPECT_EQ(1, target.pos);
  target.size = 2047;
  for (const int lines : {0, 1}) {
    holding({0, 1, 7}) >> target;
    EXPECT_EQ(2048, target.size);
    EXPECT_EQ(lines, seam::times_logged("buffer::>> buffer_t - not enough data: size=3, pos=2, buff size=1"));
  }
}

TEST_F(buffer, a_string_without_its_terminator_is_refused) {
  std::string text = "kept";
  for (const byte_list& bytes : {byte_list{0, 0, 'a'}, byte_list{1, 0}})
    holding(bytes) >> text;
  EXPECT_EQ("kept", text);
  EXPECT_TRUE(seam::logged("buffer::>> std::string - not enough data: size=3, pos=2, str size=0"));
  EXPECT_TRUE(seam::logged("buffer::>> std::string - not enough data: size=2, pos=0, str size=9999"));
}
