#include "printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace {

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// Bytes of the character that begins the text, 0 when it is none to print.
std::size_t character_size(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || size > text.size()) return 0;
  const auto tail = text.substr(1, size - 1);
  if (!std::all_of(tail.begin(), tail.end(), is_continuation)) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  const bool is_control = first == 0xC2 && second < 0xA0;
  const bool is_overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool is_surrogate = first == 0xED && second >= 0xA0;
  const bool is_none = text.substr(0, 2) == "\xEF\xBF" && static_cast<unsigned char>(text[2]) >= 0xBE;
  const bool is_beyond = first == 0xF4 && second >= 0x90;
  return is_control || is_overlong || is_surrogate || is_none || is_beyond ? 0 : size;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t size = character_size(text);
    if (size > 0) {
      result += text.substr(0, size);
    } else {
      char code[5];
      std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(text[0]));
      result += code;
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

std::size_t width_of(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), is_continuation));
}

std::string shortened(std::string_view text, std::size_t width) {
  if (width_of(text) <= width) return std::string(text);
  std::size_t end = 0;
  for (std::size_t taken = 0; taken + 1 < width; ++taken) {
    do
      ++end;
    while (is_continuation(text[end]));
  }
  return std::string(text.substr(0, end)) + "…";
}

std::string padded(std::string text, std::size_t width) {
  const std::size_t has = width_of(text);
  if (has < width) text.append(width - has, ' ');
  return text;
}

std::string duration_text(std::uint64_t ns) {
  struct unit {
    double ns;
    const char* name;
  };
  constexpr std::array<unit, 3> units = {{{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}}};
  const auto fits = [ns](const unit& each) { return static_cast<double>(ns) >= each.ns; };
  const unit& chosen = *std::min(std::find_if(units.begin(), units.end(), fits), units.end() - 1);
  const double value = static_cast<double>(ns) / chosen.ns;
  char text[32];
  std::snprintf(text, sizeof text, "%.*f %s", value < 10 ? 2 : value < 100 ? 1 : 0, value, chosen.name);
  return text;
}
