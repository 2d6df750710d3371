#include "description.h"

#include <algorithm>
#include <cstdlib>
#include <rapidxml/rapidxml.hpp>

namespace {

using node = rapidxml::xml_node<>;

constexpr std::size_t max_size = 4096;  // there is no longer one: it came in a datagram

std::string attribute(const node& of, const char* name) {
  const rapidxml::xml_attribute<>* const found = of.first_attribute(name);
  return found == nullptr ? "" : std::string(found->value(), found->value_size());
}

// -1 when it is no number of a command.
int number_of(const std::string& cmd) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(cmd.c_str(), &end, 10);
  const bool is_number = !cmd.empty() && cmd[0] >= '0' && cmd[0] <= '9' && *end == '\0';
  return is_number && number <= 0xFF ? static_cast<int>(number) : -1;
}

void add_fields(const node& of, description::command& to) {
  for (const node* each = of.first_node("arg"); each != nullptr; each = each->next_sibling("arg")) {
    const bool is_input = !to.is_signal && attribute(*each, "direction") != "out";
    std::vector<description::field>& fields = is_input ? to.in : to.out;
    fields.push_back({attribute(*each, "name"), attribute(*each, "type"), attribute(*each, "unit")});
  }
}

void add_commands(const node& of, const char* kind, std::vector<description::command>& to) {
  const bool is_signal = std::string(kind) == "signal";
  for (const node* each = of.first_node(kind); each != nullptr; each = each->next_sibling(kind)) {
    const int cmd = number_of(attribute(*each, "cmd"));
    if (cmd < 0) continue;
    description::command added = {
        static_cast<std::uint8_t>(cmd), attribute(*each, "name"), is_signal, {}, {}};
    add_fields(*each, added);
    to.push_back(std::move(added));
  }
}

}  // namespace

std::optional<description> description::parse(const std::string& xml) {
  if (xml.size() > max_size) return {};
  std::string text = xml;  // is changed by the parser
  rapidxml::xml_document<> document;
  try {
    document.parse<0>(text.data());
  } catch (const rapidxml::parse_error&) {
    return {};
  }
  const node* const interface = document.first_node("interface");
  if (interface == nullptr) return {};
  description parsed;
  add_commands(*interface, "method", parsed.m_commands);
  add_commands(*interface, "signal", parsed.m_commands);
  return parsed;
}

const description::command* description::find(std::uint8_t cmd, bool is_signal) const {
  const auto found = std::find_if(m_commands.begin(), m_commands.end(), [=](const command& each) {
    return each.cmd == cmd && each.is_signal == is_signal;
  });
  return found == m_commands.end() ? nullptr : &*found;
}
