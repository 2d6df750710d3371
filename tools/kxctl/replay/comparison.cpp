#include "replay/comparison.h"

#include <algorithm>
#include <charconv>

#include "printable.h"
#include "shell.h"

namespace {

bool is_same(const recorded_call& then, const std::string& now, const ignored_fields& ignored) {
  const decoded_payload before = decode(then.answer->payload);
  const decoded_payload after = decode(now);
  if (!before.rest.empty() || !after.rest.empty()) return then.answer->payload == now;
  if (before.values.size() != after.values.size()) return false;
  for (std::size_t i = 0; i < before.values.size(); ++i) {
    const value& a = before.values[i];
    const value& b = after.values[i];
    if (!ignored.has(then.cmd, i) && (a.type != b.type || a.content != b.content)) return false;
  }
  return true;
}

}  // namespace

const char* verdict_name(verdict_e verdict) {
  static const char* const names[] = {"same", "value", "type", "no answer", "new answer"};
  return names[verdict];
}

ignored_fields::ignored_fields(const std::vector<std::string>& words, const description* known) {
  for (const std::string& word : words) {
    std::size_t number = 0;
    const auto [end, problem] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (problem == std::errc() && end == word.data() + word.size() && number > 0) {
      m_numbers.insert(number - 1);
      continue;
    }
    const std::size_t before = m_named.size();
    if (known != nullptr)
      for (const description::command& each : known->commands())
        for (std::size_t i = 0; i < each.out.size(); ++i)
          if (each.out[i].name == word) m_named.insert({each.cmd, i});
    if (m_named.size() == before)
      throw failure(USAGE, "no answer of the service has a field '" + printable(word) +
                               "': see kxctl introspect, or give its number, from 1 on");
  }
}

bool ignored_fields::has(std::uint8_t cmd, std::size_t index) const {
  return m_numbers.count(index) != 0 || m_named.count({cmd, index}) != 0;
}

verdict_e compare(const recorded_call& then, const std::optional<recorded_answer>& now,
                  const ignored_fields& ignored) {
  if (!then.answer) return now ? NOT_ANSWERED_THEN : SAME;
  if (!now) return NOT_ANSWERED;
  if (then.answer->type != now->type) return TYPE_DIFFERS;
  return is_same(then, now->payload, ignored) ? SAME : VALUE_DIFFERS;
}
