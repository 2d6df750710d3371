// The types of values, for reading and for writing them.
#ifndef KXCTL_VALUE_TYPES_H
#define KXCTL_VALUE_TYPES_H

#include <algorithm>
#include <iterator>

#include "values.h"

struct type_facts {
  const char* type;
  value_tag_e tag;
  std::size_t width;  // of a number
  bool is_signed;
  const char* name;
};

inline constexpr type_facts types[] = {
    {"c", TAG_INT8, 1, true, "signed char"}, {"y", TAG_UINT8, 1, false, "unsigned char"},
    {"n", TAG_INT16, 2, true, "short"},      {"q", TAG_UINT16, 2, false, "unsigned short"},
    {"i", TAG_INT32, 4, true, "int"},        {"u", TAG_UINT32, 4, false, "unsigned int"},
    {"x", TAG_INT64, 8, true, "long long"},  {"t", TAG_UINT64, 8, false, "unsigned long long"},
    {"b", TAG_BOOL, 1, false, "bool"},       {"s", TAG_STRING, 0, false, "string"},
    {"ay", TAG_BUFFER, 0, false, "buffer"},
};

template <typename Wanted>
const type_facts* find_type(const Wanted& is_wanted) {
  const auto found = std::find_if(std::begin(types), std::end(types), is_wanted);
  return found == std::end(types) ? nullptr : found;
}

// The value whose bytes, as many as its type is wide, hold this number.
value number_value(const type_facts& facts, std::uint64_t number);

#endif
