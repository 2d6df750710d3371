// Times of day, where the user is.
#ifndef KXCTL_CLOCK_TEXT_H
#define KXCTL_CLOCK_TEXT_H

#include <cstdint>
#include <string>

// A time in ns since 1970, as strftime writes it.
std::string time_text(std::uint64_t ns, const char* format);

std::string clock_text(std::uint64_t ns);  // "20:59:44.573630"

#endif
