// Who is there, and what is offered.
#include <fnmatch.h>

#include <algorithm>

#include "columns.h"
#include "phrases.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using rows = session::rows;

rows matching(rows all, const char* key, const std::string& glob) {
  const auto is_other = [&](const nlohmann::json& each) {
    return fnmatch(glob.c_str(), each[key].get<std::string>().c_str(), 0) != 0;
  };
  all.erase(std::remove_if(all.begin(), all.end(), is_other), all.end());
  return all;
}

std::string components_text(const options& given, const rows& components) {
  columns table(
      {"COMPONENT", ">PID", ">UID", ">SERVICES", ">USES", ">SENT", ">RECEIVED", ">QUEUED", ">LOST", "STATE"});
  const auto count = [](const nlohmann::json& of, const char* key) {
    return short_number(static_cast<double>(number(of, key)));
  };
  for (const auto& each : components)
    table.add({cell(each, "component"), cell(each, "pid"), cell(each, "uid"), cell(each, "services"),
               cell(each, "uses"), count(each, "sent"), count(each, "received"), count(each, "queued_bytes"),
               count(each, "lost"), state_of(each)});
  return table.text(given);
}

std::string services_text(const options& given, const rows& services) {
  columns table({"SERVICE", "KIND", ">SIID", ">USERS", "COMPONENT"});
  for (const auto& each : services)
    table.add({cell(each, "service"), cell(each, "kind"), cell(each, "siid"), cell(each, "users"),
               cell(each, "component")});
  return table.text(given);
}

std::string names_text(const rows& all, const char* key) {
  std::string text;
  for (const auto& each : all)
    text += cell(each, key) + "\n";
  return text;
}

}  // namespace

void list(const options& given, const std::vector<std::string>& words, bool names_only) {
  const bool is_named = !words.empty() && (words.front() == "components" || words.front() == "services");
  if (words.size() > (is_named ? 2 : 1)) throw failure(USAGE, "too many words: see kxctl list --help");
  const std::string glob = words.size() == (is_named ? 1 : 0) ? "*" : words.back();
  bus_client client(given.deadline());
  session bus(client, given);
  nlohmann::json object;
  std::string text;
  if (!is_named || words.front() == "components") {
    const rows found = matching(bus.components(), "component", glob);
    object["components"] = found;
    text = names_only ? names_text(found, "component") : components_text(given, found);
  }
  if (!is_named && !names_only) text += "\n";
  if (!is_named || words.front() == "services") {
    const rows found = matching(bus.services(), "service", glob);
    object["services"] = found;
    text += names_only ? names_text(found, "service") : services_text(given, found);
  }
  write_out(given.json ? dump(object) + "\n" : text);
}
