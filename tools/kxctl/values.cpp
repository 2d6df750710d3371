#include "values.h"

#include <optional>

#include "printable.h"
#include "value_types.h"

namespace {

using nlohmann::json;

constexpr std::size_t count_width = 2;

bool is_utf8(const std::string& text) {
  try {
    json(text).dump();
    return true;
  } catch (const json::type_error&) {
    return false;
  }
}

std::string hex(unsigned char byte) {
  constexpr char digits[] = "0123456789abcdef";
  return {digits[byte >> 4], digits[byte & 0xF]};
}

template <typename Bytes>
std::string hex(const Bytes& bytes, const char* before_each) {
  std::string text;
  for (const auto byte : bytes)
    text += before_each + hex(static_cast<unsigned char>(byte));
  return text;
}

// A text in quotes.
std::string quoted(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (c == '\n')
      result += "\\n";
    else
      result += c;
  }
  return '"' + printable(result) + '"';
}

// --- decoding ---

struct input {
  const unsigned char* next;
  std::size_t left;

  void skip(std::size_t size) { next += size, left -= size; }
};

std::uint64_t number_at(const unsigned char* bytes, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width; ++i)
    number = number << 8 | bytes[i];
  return number;
}

std::optional<value> take_number(const type_facts& facts, input& from) {
  if (from.left < facts.width) return {};
  const std::uint64_t number = number_at(from.next, facts.width);
  from.skip(facts.width);
  return number_value(facts, number);
}

// A string or buffer: a count, and as many bytes. The count of a string is in the other order, and counts the
// 00 at its end.
std::optional<value> take_counted(const type_facts& facts, input& from) {
  if (from.left < count_width) return {};
  const bool is_string = facts.tag == TAG_STRING;
  const auto count = static_cast<std::size_t>(is_string ? from.next[0] | from.next[1] << 8
                                                        : from.next[0] << 8 | from.next[1]);
  from.skip(count_width);
  const unsigned char* const begin = from.next;
  if (from.left < count) return {};
  from.skip(count);
  if (!is_string) return value{facts.type, value::bytes(begin, from.next)};
  if (count == 0 || from.next[-1] != 0) return {};
  return value{facts.type, std::string(begin, from.next - 1)};
}

std::optional<value> take_value(input& from) {
  const auto* const facts = find_type([&](const type_facts& each) { return each.tag == *from.next; });
  if (facts == nullptr) return {};
  from.skip(1);
  return facts->width > 0 ? take_number(*facts, from) : take_counted(*facts, from);
}

}  // namespace

value number_value(const type_facts& facts, std::uint64_t number) {
  if (facts.tag == TAG_BOOL) return {facts.type, number != 0};
  if (!facts.is_signed) return {facts.type, number};
  const std::uint64_t sign = std::uint64_t{1} << (8 * facts.width - 1);
  return {facts.type, static_cast<std::int64_t>((number ^ sign) - sign)};  // with the sign in all upper bits
}

std::string value::text() const {
  if (const auto* flag = std::get_if<bool>(&content)) return *flag ? "true" : "false";
  if (const auto* number = std::get_if<std::int64_t>(&content)) return std::to_string(*number);
  if (const auto* number = std::get_if<std::uint64_t>(&content)) return std::to_string(*number);
  if (const auto* text = std::get_if<std::string>(&content)) return quoted(*text);
  const auto& buffer = std::get<bytes>(content);
  return std::to_string(buffer.size()) + hex(buffer, " 0x");
}

json value::json() const {
  if (const auto* buffer = std::get_if<bytes>(&content)) return {{"hex", hex(*buffer, "")}};
  const auto* const text = std::get_if<std::string>(&content);
  if (text != nullptr && !is_utf8(*text)) return {{"hex", hex(*text, "")}};
  return std::visit([](const auto& any) { return nlohmann::json(any); }, content);
}

std::string decoded_payload::signature() const {
  std::string letters;
  for (const value& each : values)
    letters += each.type;
  return rest.empty() ? letters : letters + "?";
}

std::string decoded_payload::text() const {
  std::string line;
  for (const value& each : values)
    line += (line.empty() ? "" : " ") + each.text();
  if (rest.empty()) return line;
  return line + (line.empty() ? "?" : " ?") + hex(rest, " ");
}

json decoded_payload::json() const {
  nlohmann::json data = nlohmann::json::array();
  for (const value& each : values)
    data.push_back(each.json());
  nlohmann::json object = {{"signature", signature()}, {"data", data}};
  if (!rest.empty()) object["rest"] = hex(rest, "");
  return object;
}

decoded_payload decode(const unsigned char* bytes, std::size_t size) {
  decoded_payload result;
  for (input left = {bytes, size}; left.left > 0;) {
    const input before = left;
    auto next = take_value(left);
    if (!next) {
      result.rest.assign(before.next, before.next + before.left);
      break;
    }
    result.values.push_back(std::move(*next));
  }
  return result;
}

decoded_payload decode(const KXmessage& message) {
  return decode(message.data + message.offset, static_cast<std::size_t>(message.size));
}

std::string reason_of(const KXmessage& refusal) {
  const decoded_payload payload = decode(refusal);
  if (payload.signature() == "s") return printable(std::get<std::string>(payload.values.front().content));
  return payload.signature().empty() ? "it is refused, without a reason" : payload.text();
}
