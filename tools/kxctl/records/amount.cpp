#include "amount.h"

#include <cstdlib>

#include "shell.h"

namespace {

constexpr double most = 1e12;

[[noreturn]] void refuse(const std::string& text, const std::string& option, const char* expected) {
  throw failure(USAGE, option + ": '" + text + "' is not " + expected);
}

// The number in front, above 0; `rest` is what stands behind. 0 when there is none.
double number_of(const std::string& text, std::string& rest) {
  char* end = nullptr;
  const bool is_number = text[0] >= '0' && text[0] <= '9';
  const double number = is_number ? std::strtod(text.c_str(), &end) : 0;
  if (is_number) rest = end;
  return number <= most ? number : 0;
}

}  // namespace

std::uint64_t bytes_of(const std::string& text, const std::string& option) {
  std::string unit;
  const double number = number_of(text, unit);
  const double factor = unit.empty()  ? 1
                        : unit == "K" ? 1024
                        : unit == "M" ? 1 << 20
                        : unit == "G" ? 1 << 30
                                      : 0;
  if (number * factor < 1 || number * factor > most) refuse(text, option, "a size, such as 64K, 8M or 1G");
  return static_cast<std::uint64_t>(number * factor);
}

std::uint64_t span_of(const std::string& text, const std::string& option) {
  std::string unit;
  const double number = number_of(text, unit);
  if (unit != "s" || number <= 0 || number > 1e6) refuse(text, option, "a time, such as 30s");
  return static_cast<std::uint64_t>(number * 1e9);
}

unsigned int count_of(const std::string& text, const std::string& option) {
  std::string rest;
  const double number = number_of(text, rest);
  if (!rest.empty() || number < 1 || number > 10000) refuse(text, option, "a number of files");
  return static_cast<unsigned int>(number);
}
