// The values of payloads, read and written.
#include <sstream>

#include "probe.h"
#include "values.h"

namespace {

std::vector<std::string> words_of(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

std::string payload_of(const KXmessage& message) {
  const unsigned char* const begin = message.data + message.offset;
  return hex(std::vector<unsigned char>(begin, begin + message.size));
}

decoded_payload decoded(const std::string& bytes) {
  const auto payload = hex(bytes);
  return decode(payload.data(), payload.size());
}

// A row of the table of types: the words, the bytes of the payload, and what comes back from it.
struct example {
  const char *signature, *words, *bytes, *text, *data;
};

const example examples[] = {
    {"c", "-2", " 01 FE", "-2", "[-2]"},
    {"c", "127", " 01 7F", "127", "[127]"},
    {"c", "-128", " 01 80", "-128", "[-128]"},
    {"y", "255", " 02 FF", "255", "[255]"},
    {"y", "0xfe", " 02 FE", "254", "[254]"},
    {"n", "-32768", " 03 80 00", "-32768", "[-32768]"},
    {"q", "010", " 04 00 0A", "10", "[10]"},
    {"i", "-2", " 05 FF FF FF FE", "-2", "[-2]"},
    {"u", "4294967295", " 06 FF FF FF FF", "4294967295", "[4294967295]"},
    {"x", "-9223372036854775808", " 0A 80 00 00 00 00 00 00 00", "-9223372036854775808",
     "[-9223372036854775808]"},
    {"t", "18446744073709551615", " 0B FF FF FF FF FF FF FF FF", "18446744073709551615",
     "[18446744073709551615]"},
    {"b", "true", " 09 01", "true", "[true]"},
    {"b", "no", " 09 00", "false", "[false]"},
    {"s", "ab", " 07 03 00 61 62 00", "\"ab\"", "[\"ab\"]"},
    {"s", "\"\\\x1B\xC3\xA4", " 07 06 00 22 5C 1B C3 A4 00", "\"\\\"\\\\\\x1b\xC3\xA4\"",
     "[\"\\\"\\\\\\u001b\xC3\xA4\"]"},
    {"s", "\xFFz", " 07 03 00 FF 7A 00", "\"\\xffz\"", "[{\"hex\":\"ff7a\"}]"},
    {"ay", "3 10 0x0b 255", " 08 00 03 0A 0B FF", "3 0x0a 0x0b 0xff", "[{\"hex\":\"0a0bff\"}]"},
    {"ay", "0", " 08 00 00", "0", "[{\"hex\":\"\"}]"},
    {"say", "a 1 2", " 07 02 00 61 00 08 00 01 02", "\"a\" 1 0x02", "[\"a\",{\"hex\":\"02\"}]"},
    {"", "", "", "", "[]"},
};

}  // namespace

TEST(a_value, is_written_as_its_type_has_it) {
  for (const example& row : examples) {
    KXmessage message;
    EXPECT_EQ("", encode(row.signature, words_of(row.words), message)) << row.words;
    EXPECT_EQ(row.bytes, payload_of(message)) << row.words;
  }
}

TEST(a_payload, tells_its_signature) {
  for (const example& row : examples)
    EXPECT_EQ(row.signature, decoded(row.bytes).signature()) << row.bytes;
}

TEST(a_payload, is_shown_as_text) {
  for (const example& row : examples)
    EXPECT_EQ(row.text, decoded(row.bytes).text()) << row.bytes;
}

TEST(a_payload, is_shown_as_json) {
  for (const example& row : examples)
    EXPECT_EQ(row.data, decoded(row.bytes).json()["data"].dump()) << row.bytes;
}

TEST(a_payload, keeps_what_does_not_parse) {
  const struct {
    const char *bytes, *signature, *text;
  } rows[] = {
      {"00", "?", "? 00"},
      {"0c 01", "?", "? 0c 01"},
      {"02", "?", "? 02"},
      {"09 01 05 00 00 01", "b?", "true ? 05 00 00 01"},
      {"07 03", "?", "? 07 03"},
      {"07 03 00 61 62", "?", "? 07 03 00 61 62"},
      {"07 00 00", "?", "? 07 00 00"},
      {"07 02 00 61 62", "?", "? 07 02 00 61 62"},
      {"08 00 02 61", "?", "? 08 00 02 61"},
      {"08 01 00", "?", "? 08 01 00"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.signature, decoded(row.bytes).signature()) << row.bytes;
    EXPECT_EQ(row.text, decoded(row.bytes).text()) << row.bytes;
  }
}

TEST(a_payload, has_what_does_not_parse_in_its_json) {
  EXPECT_EQ("0c01", decoded("09 01 0c 01").json()["rest"]);
}

TEST(a_value, is_refused_with_the_reason) {
  const struct {
    const char *signature, *words, *reason;
  } rows[] = {
      {"y", "256", "'256' is no unsigned char, which is 0 to 255"},
      {"y", "-1", "'-1' is no unsigned char, which is 0 to 255"},
      {"c", "128", "'128' is no signed char, which is -128 to 127"},
      {"c", "-129", "'-129' is no signed char, which is -128 to 127"},
      {"i", "2147483648", "'2147483648' is no int, which is -2147483648 to 2147483647"},
      {"x", "9223372036854775808",
       "'9223372036854775808' is no long long, which is -9223372036854775808 to 9223372036854775807"},
      {"t", "18446744073709551616",
       "'18446744073709551616' is no unsigned long long, which is 0 to 18446744073709551615"},
      {"i", "1x", "'1x' is no int, which is -2147483648 to 2147483647"},
      {"u", "0x", "'0x' is no unsigned int, which is 0 to 4294967295"},
      {"n", "--1", "'--1' is no short, which is -32768 to 32767"},
      {"b", "2", "'2' is no bool, which is true or false"},
      {"i", "", "a value is missing: int"},
      {"si", "text", "a value is missing: int"},
      {"s", "one two", "'two' is more than the signature has"},
      {"z", "1", "'z' is no signature: its letters are y c b n q i u x t s, and ay"},
      {"a", "1", "'a' is no signature: its letters are y c b n q i u x t s, and ay"},
      {"ay", "x", "'x' is no count of bytes"},
      {"ay", "3 1 2", "a buffer of 3 bytes has only 2"},
      {"ay", "1 256", "'256' is no unsigned char, which is 0 to 255"},
  };
  for (const auto& row : rows) {
    KXmessage message;
    EXPECT_EQ(row.reason, encode(row.signature, words_of(row.words), message)) << row.words;
    EXPECT_EQ(0, message.size) << row.words;
  }
}

TEST(a_message, holds_values_up_to_its_last_byte) {
  KXmessage message;
  EXPECT_EQ("", encode("s", {std::string(2030, 'x')}, message));
  EXPECT_EQ(2034, message.size);
}

TEST(a_message, takes_no_value_that_does_not_fit) {
  KXmessage message;
  EXPECT_EQ("the values take 2035 bytes, a message has room for 2034",
            encode("s", {std::string(2031, 'x')}, message));
  EXPECT_EQ(0, message.size);
}
