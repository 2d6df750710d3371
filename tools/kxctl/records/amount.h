// Numbers with a unit, as options have them.
#ifndef KXCTL_AMOUNT_H
#define KXCTL_AMOUNT_H

#include <cstdint>
#include <string>

// The bytes that "8M" are, with K, M, G or nothing behind the number. `option` is for the message of the
// failure, which is thrown for another text.
std::uint64_t bytes_of(const std::string& text, const std::string& option);

// The ns that "30s" are.
std::uint64_t span_of(const std::string& text, const std::string& option);

unsigned int count_of(const std::string& text, const std::string& option);

#endif
