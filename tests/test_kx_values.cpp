// What the layer kx writes into messages, and what it takes from them.
#include <limits>

#include "kx_test.h"
#include "probe.h"

namespace {

enum class color : std::uint8_t { red, green = 200 };
struct point {
  int x;
  double height;
};
struct place {
  std::string name;
  point at;
  std::vector<short> marks;
  std::array<color, 2> colors;
};

std::string payload_of(const KXmessage& message) {
  std::string text;
  for (int i = 0; i < message.size; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%02x", message.data[message.offset + i]);
    text += byte;
  }
  return text;
}

// The bytes that travel for a value, or "lost" when it is not read back as it was.
template <class T>
std::string travelled(const T& value) {
  KXmessage message;
  T back{};
  if (!kx::write(message, value) || !kx::read(message, back)) return "lost";
  KXmessage again;
  kx::write(again, back);
  return payload_of(again) == payload_of(message) ? payload_of(message) : "lost";
}

buffer_t two_bytes() {
  unsigned char bytes[] = {10, 11};
  return {bytes, 2};
}

struct row {
  const char* name;
  std::string expected;
  std::string travelled;
};

TEST(kx_values, travel_as_the_page_about_the_wire_says) {
  const row rows[] = {
      {"bool", "0901", travelled(true)},
      {"signed char", "01fe", travelled<signed char>(-2)},
      {"unsigned char", "02c8", travelled<unsigned char>(200)},
      {"short", "03fffe", travelled<short>(-2)},
      {"unsigned short", "040102", travelled<unsigned short>(0x0102)},
      {"int", "05fffffffe", travelled(-2)},
      {"unsigned int", "0601020304", travelled(0x01020304u)},
      {"int64_t", "0afffffffffffffffe", travelled<std::int64_t>(-2)},
      {"uint64_t", "0b0102030405060708", travelled<std::uint64_t>(0x0102030405060708)},
      {"long", sizeof(long) == 8 ? "0a0000000000000007" : "0500000007", travelled(7L)},
      {"double", "0bc000000000000000", travelled(-2.0)},
      {"enumeration", "02c8", travelled(color::green)},
      {"string",
       "0703006162"
       "00",
       travelled<std::string>("ab")},
      {"empty string", "07010000", travelled<std::string>("")},
      {"buffer", "0800020a0b", travelled(two_bytes())},
      {"vector",
       "0600000002"
       "030001"
       "030002",
       travelled(std::vector<short>{1, 2})},
      {"empty vector", "0600000000", travelled(std::vector<std::string>{})},
      {"vector of bool",
       "0600000001"
       "0901",
       travelled(std::vector<bool>{true})},
      {"array", "02050207", travelled(std::array<unsigned char, 2>{5, 7})},
      {"pair",
       "0900"
       "0205",
       travelled(std::pair<bool, unsigned char>(false, 5))},
      {"tuple",
       "0900"
       "0205",
       travelled(std::tuple<bool, unsigned char>(false, 5))},
      {"aggregate",
       "0500000001"
       "0b3ff8000000000000",
       travelled(point{1, 1.5})},
      {"nested aggregate",
       "07020061"
       "00"
       "0500000001"
       "0b3ff8000000000000"
       "0600000001"
       "030009"
       "0200"
       "02c8",
       travelled(place{"a", {1, 1.5}, {9}, {color::red, color::green}})},
  };
  for (const row& each : rows)
    EXPECT_EQ(each.expected, each.travelled) << each.name;
}

TEST(kx_values, texts_of_every_kind_travel_as_strings) {
  const char* const none = nullptr;
  KXmessage message;
  kx::write(message, "ab", std::string_view("c"), none, static_cast<const char*>("d"));
  EXPECT_EQ(
      "07030061620007020063000701000007020064"
      "00",
      payload_of(message));
}

template <class... T>
std::string why_not(const KXmessage& message) {
  std::tuple<T...> values;
  kx::reader from(message);
  return std::apply([&](T&... each) { return kx::read(from, each...); }, values) ? "fits" : from.reason();
}

template <class... T>
KXmessage with(const T&... values) {
  KXmessage message;
  kx::write(message, values...);
  return message;
}

// A message of these bytes, behind which there is something that must not be read.
KXmessage of_bytes(const std::vector<unsigned char>& bytes) {
  KXmessage message;
  std::fill(message.data + message.offset, message.data + buffer_t::capacity,
            static_cast<unsigned char>(TAG_INT8));
  std::copy(bytes.begin(), bytes.end(), message.data + message.offset);
  message.size = static_cast<int>(bytes.size());
  return message;
}

TEST(kx_values, what_does_not_fit_is_named) {
  struct {
    std::string expected;
    std::string reason;
  } const rows[] = {
      {"value 1 is missing", why_not<int>(with())},
      {"value 2 is missing", why_not<int, int>(with(1))},
      {"there are more than 1 values", why_not<int>(with(1, 2))},
      {"there are more than 0 values", why_not<>(with(1))},
      {"value 1 is an unsigned int, not an int", why_not<int>(with(1u))},
      {"value 2 is a string, not a bool", why_not<int, bool>(with(1, "x"))},
      {"value 1 is a long long, not an unsigned long long", why_not<double>(with(1LL))},
      {"value 1 is of an unknown type, not an int", why_not<int>(of_bytes({12, 0, 0, 0, 0}))},
      {"value 1 is cut off", why_not<int>(of_bytes({TAG_INT32, 0, 0, 0}))},
      {"fits", why_not<int>(of_bytes({TAG_INT32, 0, 0, 0, 0}))},
      {"value 1 is cut off", why_not<std::string>(of_bytes({TAG_STRING, 2, 0, 'a'}))},
      {"fits", why_not<std::string>(of_bytes({TAG_STRING, 2, 0, 'a', 0}))},
      {"value 1 is cut off", why_not<std::string>(of_bytes({TAG_STRING, 0, 0, 0}))},
      {"value 1 is cut off", why_not<std::string>(of_bytes({TAG_STRING, 1, 1, 0, 0}))},
      {"value 1 is cut off", why_not<std::string>(of_bytes({TAG_STRING, 1}))},
      {"value 1 is cut off", why_not<buffer_t>(of_bytes({TAG_BUFFER, 0, 2, 1}))},
      {"value 1 is cut off", why_not<buffer_t>(of_bytes({TAG_BUFFER, 1, 0, 1}))},
      {"fits", why_not<buffer_t>(of_bytes({TAG_BUFFER, 0, 1, 1}))},
      {"value 2 is missing", why_not<std::vector<int>>(of_bytes({TAG_UINT32, 255, 255, 255, 255}))},
      {"value 3 is missing", why_not<std::vector<int>>(with(2u, 7))},
      {"there are more than 2 values", why_not<std::vector<int>>(with(1u, 7, 7))},
      {"value 2 is missing", why_not<point>(with(1))},
  };
  for (const auto& each : rows)
    EXPECT_EQ(each.expected, each.reason);
}

TEST(kx_values, the_count_of_a_vector_takes_no_memory_that_its_elements_do_not_need) {
  std::vector<int> values;
  kx::read(of_bytes({TAG_UINT32, 255, 255, 255, 255}), values);
  EXPECT_EQ(0u, values.capacity());
}

TEST(kx_values, a_buffer_that_is_in_use_takes_as_much_as_a_new_one) {
  buffer_t used = two_bytes();
  used.size = 1;
  used.offset = buffer_t::capacity - used.size;
  kx::read(with(two_bytes(), std::string()), used, *std::make_unique<std::string>());
  EXPECT_EQ(payload_of(with(two_bytes())), payload_of(with(used)));
}

TEST(kx_values, a_text_of_more_than_a_byte_can_count_is_read_back) {
  const std::string text(1000, 'x');
  std::string back;
  kx::read(with(text), back);
  EXPECT_EQ(text, back);
}

TEST(kx_values, a_vector_that_is_in_use_holds_what_was_read_and_nothing_else) {
  std::vector<int> used = {1, 2};
  kx::read(with(std::vector<int>{3}), used);
  EXPECT_EQ(std::vector<int>{3}, used);
}

class kx_room : public seam_test {};

TEST_F(kx_room, a_payload_is_filled_to_the_last_byte) {
  EXPECT_EQ(2034, with(1, std::string(2034 - 5 - 4, 'x')).size);
}

TEST_F(kx_room, nothing_is_written_when_the_values_take_one_byte_more) {
  EXPECT_EQ(0, with(1, std::string(2034 - 5 - 3, 'x')).size);
}

TEST_F(kx_room, a_list_of_texts_takes_what_its_texts_take) {
  EXPECT_EQ(0, with(std::vector<std::string>(2, std::string(1100, 'x'))).size);
}

TEST_F(kx_room, what_has_no_room_is_not_worth_a_line) {
  KXmessage message;
  kx::write(message, std::vector<int>(500));
  EXPECT_EQ(std::size_t{0}, seam::lines().size());
}

TEST_F(kx_room, values_are_written_behind_those_that_are_there) {
  KXmessage message = with(true);
  kx::write(message, std::string(2034 - 2 - 3, 'x'));
  EXPECT_EQ("0901", payload_of(message));
}

TEST_F(kx_room, what_was_read_before_is_read_again) {
  const KXmessage message = with(7);
  int value = 0;
  message >> value;
  EXPECT_TRUE(kx::read(message, value));
}

}  // namespace
