// The values of a payload, as text and as JSON. Their types are letters: y unsigned char, c signed char, b
// bool, n short, q unsigned short, i int, u unsigned int, x long long, t unsigned long long, s string, ay
// buffer.
#ifndef KXCTL_VALUES_H
#define KXCTL_VALUES_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

#include "KXmessage.h"

struct value {
  using bytes = std::vector<unsigned char>;

  std::string type;
  std::variant<bool, std::int64_t, std::uint64_t, std::string, bytes> content;

  // As it is written for `encode`, with strings in quotes and escaped, and bytes in hex.
  std::string text() const;
  nlohmann::json json() const;  // a string that is no UTF-8, and a buffer, as {"hex": "..."}
};

struct decoded_payload {
  std::vector<value> values;
  value::bytes rest;  // what does not parse, from the first such byte on

  std::string signature() const;  // "su"; what does not parse is "?"
  std::string text() const;       // values with a space between; what does not parse as "? 0a 0b"
  nlohmann::json json() const;    // {"signature": ..., "data": [...]}, and "rest": hex where there is one
};

// Decodes a payload, of whatever bytes.
decoded_payload decode(const unsigned char* bytes, std::size_t size);
decoded_payload decode(const KXmessage& message);

// Why the other side has answered ERR, in its own words.
std::string reason_of(const KXmessage& refusal);

// Appends the values of a signature, written as arguments; returns why not, or an empty text. Then nothing is
// appended. "ay" takes a count and as many bytes, as busctl has it.
std::string encode(const std::string& signature, const std::vector<std::string>& words, KXmessage& to);

#endif
