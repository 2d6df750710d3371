// Compares an answer with the one that a recording holds.
#ifndef KXCTL_COMPARISON_H
#define KXCTL_COMPARISON_H

#include <set>
#include <string>
#include <vector>

#include "description.h"
#include "replay/recorded_calls.h"

enum verdict_e {
  SAME,
  VALUE_DIFFERS,
  TYPE_DIFFERS,  // RSP in place of ERR, or the other way round
  NOT_ANSWERED,  // now
  NOT_ANSWERED_THEN
};

const char* verdict_name(verdict_e verdict);

// Fields of answers that are not compared: their numbers, from 1 on, or the names that the description of the
// service gives them.
class ignored_fields {
 public:
  // Throws failure for a word that is neither.
  ignored_fields(const std::vector<std::string>& words, const description* known);

  bool has(std::uint8_t cmd, std::size_t index) const;

 private:
  std::set<std::size_t> m_numbers;  // from 0
  std::set<std::pair<std::uint8_t, std::size_t>> m_named;
};

verdict_e compare(const recorded_call& then, const std::optional<recorded_answer>& now,
                  const ignored_fields& ignored);

#endif
