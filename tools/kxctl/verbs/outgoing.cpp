// Messages as they are written on the command line, and as they are shown.
#include <algorithm>
#include <charconv>

#include "core_services.h"
#include "description.h"
#include "printable.h"
#include "values.h"
#include "verbs/verbs.h"

namespace {

bool is_number(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::uint8_t number_of(const std::string& command) {
  std::uint8_t number = 0;
  if (std::from_chars(command.data(), command.data() + command.size(), number).ec != std::errc())
    throw failure(USAGE, "a command is 0 to 255, not " + command);
  return number;
}

}  // namespace

outgoing::outgoing(const std::vector<std::string>& words) {
  const std::string target = words.empty() ? "" : words.front();
  const std::size_t colon = target.rfind(':');
  service = target.substr(0, colon);
  if (service.empty()) throw failure(USAGE, "the name of a service is missing");
  if (colon != std::string::npos) command = target.substr(colon + 1);
  if (is_number(command)) number_of(command);
  if (words.size() == 1) return;
  const std::string problem = encode(words[1], {words.begin() + 2, words.end()}, payload);
  if (!problem.empty()) throw failure(USAGE, problem);
}

std::uint8_t outgoing::cmd(bus_client& client, bus_client::time_point until) const {
  if (command.empty()) return 0;
  if (is_number(command)) return number_of(command);
  const nlohmann::json told = core_services(client, until).description(service);
  if (const auto known = description::parse(told["comment"].get<std::string>()))
    for (const description::command& each : known->commands())
      if (each.name == command) return each.cmd;
  throw failure(USAGE, "'" + printable(service) + "' describes no command '" + printable(command) +
                           "': see kxctl introspect, or give its number");
}

nlohmann::json json_of(const KXmessage& message) {
  nlohmann::json object = decode(message).json();
  object["type"] = msg_type_name(message.m_header->msg_type);
  object["cmd"] = message.m_header->cmd;
  return object;
}

std::string text_of(const KXmessage& message) {
  const decoded_payload payload = decode(message);
  if (payload.values.empty()) return payload.text();
  return payload.signature() + " " + payload.text();
}
