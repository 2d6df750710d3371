#include "phrases.h"

#include "columns.h"
#include "printable.h"

std::string comma_list(const nlohmann::json& names) {
  std::string text;
  for (const nlohmann::json& each : names)
    text += (text.empty() ? "" : ", ") + printable(each.get<std::string>());
  return text.empty() ? "-" : text;
}

std::string users_text(const nlohmann::json& service) {
  const nlohmann::json& users = service["used_by"];
  std::string text = std::to_string(users.size()) + (users.size() == 1 ? " user" : " users");
  const char* separator = ": ";
  for (const nlohmann::json& each : users) {
    text += separator + cell(each, "component");
    if (number(each, "proxies") > 1) text += " (" + cell(each, "proxies") + " times)";
    separator = ", ";
  }
  return text;
}

std::string state_of(const nlohmann::json& component) {
  return number(component, "queued_bytes") > 0 ? "does not read" : "";
}
