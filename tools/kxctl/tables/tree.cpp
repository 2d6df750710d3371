// The components, with what each offers, to whom, and uses.
#include "columns.h"
#include "phrases.h"
#include "printable.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using nlohmann::json;

// The lines below a component: one for each service that it offers, one for what it uses.
columns::row branches_of(const std::string& component, const session::relations& bus) {
  columns table({"SERVICE", "KIND", "SIID", "USERS"});
  for (const json& each : bus.services)
    if (each["component"] == component)
      table.add({cell(each, "service"), cell(each, "kind"), "siid " + cell(each, "siid"), users_text(each)});
  options without_header;
  without_header.no_header = true;
  columns::row lines;
  const std::string text = table.text(without_header);
  for (std::size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1)
    lines.push_back(text.substr(begin, text.find('\n', begin) - begin));
  for (const json& each : bus.components)
    if (each["component"] == component && !each["uses"].empty())
      lines.push_back("uses " + comma_list(each["uses"]));
  return lines;
}

std::string branch_text(const std::string& head, const columns::row& lines) {
  std::string text = head + "\n";
  for (std::size_t i = 0; i < lines.size(); ++i)
    text += (i + 1 < lines.size() ? "├─ " : "└─ ") + lines[i] + "\n";
  return text;
}

std::string head_of(const json& component) {
  const std::string state = state_of(component);
  return cell(component, "component") + " (" + cell(component, "pid") + ")" +
         (state.empty() ? "" : ", " + state);
}

[[noreturn]] void fail_without(const std::string& component) {
  throw failure(REFUSED, "no component '" + printable(component) + "' is registered");
}

// Of one component, or of all without a name.
std::string json_text(const session::relations& bus, const std::string& component) {
  json shown = {{"components", json::array()}, {"services", json::array()}};
  for (const auto& [part, rows] : {std::pair("components", &bus.components), {"services", &bus.services}})
    for (const json& each : *rows)
      if (component.empty() || each["component"] == component) shown[part].push_back(each);
  if (!component.empty() && component != "kxcore" && shown["components"].empty()) fail_without(component);
  return dump(shown);
}

}  // namespace

void tree(const options& given, const std::string& component) {
  bus_client client(given.deadline());
  session connection(client, given);
  const session::relations bus = connection.all();
  if (given.json) return write_out(json_text(bus, component) + "\n");
  std::string text;
  if (component.empty() || component == "kxcore") text = branch_text("kxcore", branches_of("kxcore", bus));
  for (const json& each : bus.components)
    if (component.empty() || each["component"] == component)
      text += branch_text(head_of(each), branches_of(each["component"], bus));
  if (text.empty()) fail_without(component);
  const columns::row orphans = branches_of("", bus);
  if (component.empty() && !orphans.empty()) text += branch_text("(offered by nobody)", orphans);
  write_out(text);
}
