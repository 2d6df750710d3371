#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "printable.h"
#include "value_types.h"

namespace {

// The type that the signature has at its position, which is moved behind it.
const type_facts* next_type(const std::string& signature, std::size_t& position) {
  const auto* const found = find_type([&](const type_facts& each) {
    return signature.compare(position, std::char_traits<char>::length(each.type), each.type) == 0;
  });
  if (found != nullptr) position += std::char_traits<char>::length(found->type);
  return found;
}

struct words_left {
  std::vector<std::string>::const_iterator next, end;
};

std::string quoted(const std::string& text) { return "'" + printable(text) + "'"; }

// The digits of a number, decimal or hex behind "0x".
std::optional<std::uint64_t> magnitude_of(std::string_view digits) {
  const bool is_hex = digits.substr(0, 2) == "0x" || digits.substr(0, 2) == "0X";
  if (is_hex) digits.remove_prefix(2);
  std::uint64_t number = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, is_hex ? 16 : 10);
  if (error != std::errc() || end != digits.data() + digits.size()) return {};
  return number;
}

// In two's complement, if it is in the range of the type.
std::optional<std::uint64_t> number_of(const type_facts& facts, const std::string& word) {
  const bool is_negative = facts.is_signed && word.rfind('-', 0) == 0;
  const auto magnitude = magnitude_of(std::string_view(word).substr(is_negative ? 1 : 0));
  const std::uint64_t greatest = ~std::uint64_t{0} >> (64 - 8 * facts.width + (facts.is_signed ? 1 : 0));
  if (!magnitude || *magnitude > greatest + (is_negative ? 1 : 0)) return {};
  return is_negative ? ~*magnitude + 1 : *magnitude;
}

std::optional<std::uint64_t> truth_of(const std::string& word) {
  for (const char* const yes : {"true", "yes", "1"})
    if (word == yes) return 1;
  for (const char* const no : {"false", "no", "0"})
    if (word == no) return 0;
  return {};
}

std::string range_of(const type_facts& facts) {
  if (facts.tag == TAG_BOOL) return "true or false";
  const value greatest = number_value(facts, ~std::uint64_t{0} >> (64 - 8 * facts.width + facts.is_signed));
  const value least = number_value(facts, facts.is_signed ? std::uint64_t{1} << (8 * facts.width - 1) : 0);
  return least.text() + " to " + greatest.text();
}

using encoded = std::vector<unsigned char>;

std::string append_number(const type_facts& facts, const std::string& word, encoded& to) {
  const auto number = facts.tag == TAG_BOOL ? truth_of(word) : number_of(facts, word);
  if (!number) return quoted(word) + " is no " + facts.name + ", which is " + range_of(facts);
  for (std::size_t i = facts.width; i-- > 0;)
    to.push_back(static_cast<unsigned char>(*number >> (8 * i)));
  return {};
}

std::string append_buffer(std::uint64_t count, words_left& words, encoded& to) {
  constexpr type_facts byte = types[1];
  to.push_back(static_cast<unsigned char>(count >> 8));
  to.push_back(static_cast<unsigned char>(count));
  for (std::string problem; count > 0; --count) {
    problem = append_number(byte, *words.next++, to);
    if (!problem.empty()) return problem;
  }
  return {};
}

std::string append_string(const std::string& text, encoded& to) {
  const std::size_t count = text.size() + 1;
  to.push_back(static_cast<unsigned char>(count));
  to.push_back(static_cast<unsigned char>(count >> 8));
  to.insert(to.end(), text.begin(), text.end());
  to.push_back(0);
  return {};
}

std::string append_value(const type_facts& facts, words_left& words, encoded& to) {
  if (words.next == words.end) return std::string("a value is missing: ") + facts.name;
  to.push_back(facts.tag);
  const std::string& word = *words.next++;
  if (facts.tag == TAG_STRING) return append_string(word, to);
  if (facts.tag != TAG_BUFFER) return append_number(facts, word, to);
  const auto count = magnitude_of(word);
  if (!count) return quoted(word) + " is no count of bytes";
  if (*count > static_cast<std::size_t>(words.end - words.next))
    return "a buffer of " + word + " bytes has only " + std::to_string(words.end - words.next);
  return append_buffer(*count, words, to);
}

}  // namespace

std::string encode(const std::string& signature, const std::vector<std::string>& words, KXmessage& to) {
  encoded bytes;
  words_left left = {words.begin(), words.end()};
  for (std::size_t position = 0; position < signature.size();) {
    const type_facts* const facts = next_type(signature, position);
    if (facts == nullptr)
      return quoted(signature) + " is no signature: its letters are y c b n q i u x t s, and ay";
    std::string problem = append_value(*facts, left, bytes);
    if (!problem.empty()) return problem;
  }
  if (left.next != left.end) return quoted(*left.next) + " is more than the signature has";
  const auto room = static_cast<std::size_t>(buffer_t::capacity - to.offset - to.size);
  if (bytes.size() > room)
    return "the values take " + std::to_string(bytes.size()) + " bytes, a message has room for " +
           std::to_string(room);
  std::copy(bytes.begin(), bytes.end(), to.data + to.offset + to.size);
  to.incr_size(static_cast<int>(bytes.size()));
  return {};
}
