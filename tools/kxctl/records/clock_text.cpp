#include "clock_text.h"

#include <cstdio>
#include <ctime>

std::string time_text(std::uint64_t ns, const char* format) {
  const auto seconds = static_cast<std::time_t>(ns / 1'000'000'000);
  std::tm local = {};
  char text[64] = "";
  if (localtime_r(&seconds, &local) != nullptr) std::strftime(text, sizeof text, format, &local);
  return text;
}

std::string clock_text(std::uint64_t ns) {
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06u", static_cast<unsigned int>(ns / 1000 % 1'000'000));
  return time_text(ns, "%H:%M:%S") + fraction;
}
