#include "filter.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "shell.h"

namespace {

using test_t = std::function<bool(const entry&)>;

constexpr std::size_t max_pattern = 255;  // that the core is asked to apply: there is no longer name

bool is_like(std::string_view text, const std::string& pattern) {
  return fnmatch(pattern.c_str(), std::string(text).c_str(), 0) == 0;
}

[[noreturn]] void refuse(const std::string& value, const std::string& key, const std::string& expected) {
  throw failure(USAGE, "filter: '" + value + "' is no " + key + ": " + expected);
}

std::uint32_t number_of(const std::string& key, const std::string& value, std::uint32_t max) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(value.c_str(), &end, value.rfind("0x", 0) == 0 ? 16 : 10);
  const bool is_number = value[0] >= '0' && value[0] <= '9' && *end == '\0';
  if (!is_number || errno != 0 || number > max)
    refuse(value, key, "a number of at most " + std::to_string(max) + " is");
  return static_cast<std::uint32_t>(number);
}

// The number of which this is the name, among those that `name_of` knows.
std::uint8_t number_named(const std::string& key, const std::string& value, std::uint8_t last,
                          const char* (*name_of)(std::uint8_t)) {
  std::string known;
  for (std::uint8_t each = 1; each <= last; ++each) {
    if (strcasecmp(name_of(each), value.c_str()) == 0) return each;
    known += (each == 1 ? "" : ", ") + std::string(name_of(each));
  }
  refuse(value, key, "there are " + known);
}

bool has_text(const entry& what, std::string_view record::*text, const std::string& pattern) {
  return is_like(what.head.*text, pattern);
}

test_t test_service(const std::string& value) {
  return [value](const entry& what) { return has_text(what, &record::service, value); };
}

test_t test_from(const std::string& value) {
  return [value](const entry& what) { return has_text(what, &record::sender, value); };
}

test_t test_to(const std::string& value) {
  return [value](const entry& what) { return has_text(what, &record::receiver, value); };
}

test_t test_component(const std::string& value) {
  return [from = test_from(value), to = test_to(value)](const entry& what) { return from(what) || to(what); };
}

test_t test_type(const std::string& value) {
  const std::uint8_t type = number_named("type", value, MSG_SIG, msg_type_name);
  return [type](const entry& what) { return what.has_message && what.type == type; };
}

test_t test_event(const std::string& value) {
  const std::uint8_t event = number_named("event", value, RECORD_MARK, record_event_name);
  return [event](const entry& what) { return what.head.event == event; };
}

test_t test_cmd(const std::string& value) {
  const std::uint32_t cmd = number_of("cmd", value, std::numeric_limits<std::uint8_t>::max());
  return [cmd](const entry& what) { return what.has_message && what.cmd == cmd; };
}

test_t test_id(const std::string& value) {
  const std::uint32_t id = number_of("id", value, std::numeric_limits<std::uint32_t>::max());
  return [id](const entry& what) { return what.has_message && what.msg_id == id; };
}

struct key_t {
  const char* name;
  test_t (*test_for)(const std::string& value);
};

constexpr key_t keys[] = {{"service", test_service}, {"component", test_component}, {"from", test_from},
                          {"to", test_to},           {"type", test_type},           {"cmd", test_cmd},
                          {"id", test_id},           {"event", test_event}};

const key_t& key_named(const std::string& name) {
  std::string known;
  for (const key_t& each : keys) {
    if (name == each.name) return each;
    known += std::string(each.name) + ", ";
  }
  throw failure(USAGE, "filter: there is no '" + name + "'; there are " + known + "mgmt");
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream from(text);
  for (std::string part; std::getline(from, part, separator);)
    if (!part.empty()) parts.push_back(part);
  return parts;
}

}  // namespace

filter::filter(const std::vector<std::string>& terms) {
  for (const std::string& each : terms)
    for (const std::string& term : split(each, ' '))
      add(term);
}

void filter::add(const std::string& term) {
  const bool begins_with_not = term[0] == '!';
  const std::size_t equals = std::min(term.find('='), term.size());
  const bool is_unequal = equals > 0 && equals < term.size() && term[equals - 1] == '!';
  const bool negated = begins_with_not != is_unequal;
  const std::size_t begin = begins_with_not ? 1 : 0;
  const std::size_t end = is_unequal ? equals - 1 : equals;
  const std::string key = end > begin ? term.substr(begin, end - begin) : "";
  if (key == "mgmt" && equals == term.size()) {
    m_tests.push_back([negated](const entry& what) {
      return (what.is_management() || what.head.event == RECORD_EVENT) != negated;
    });
    return;
  }
  const std::vector<std::string> values = split(term.substr(std::min(equals + 1, term.size())), ',');
  if (key.empty() || values.empty())
    throw failure(USAGE, "filter: '" + term + "' is no term: it wants KEY=VALUE[,VALUE], or mgmt");
  add(key, values, negated);
}

void filter::add(const std::string& key, const std::vector<std::string>& values, bool negated) {
  std::vector<test_t> any;
  any.reserve(values.size());
  for (const std::string& value : values)
    any.push_back(key_named(key).test_for(value));
  m_tests.push_back([any, negated](const entry& what) {
    return std::any_of(any.begin(), any.end(), [&](const test_t& test) { return test(what); }) != negated;
  });
  if (negated) return;
  if (key == "event") m_asks_for_events = true;
  if (values.size() > 1 || values[0].size() > max_pattern) return;
  if (key == "component") m_components = values[0];
  if (key == "service") m_services = values[0];
}

bool filter::matches(const entry& what) const {
  if (what.is_of_bus() && !m_asks_for_events) return false;
  return std::all_of(m_tests.begin(), m_tests.end(), [&](const test_t& test) { return test(what); });
}
