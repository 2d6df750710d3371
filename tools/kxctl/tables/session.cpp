#include "session.h"

#include <algorithm>

#include "columns.h"

namespace {

using nlohmann::json;

const char* kind_name(std::uint64_t kind) {
  constexpr const char* names[] = {"sync", "async", "signal"};
  return kind < std::size(names) ? names[kind] : "unknown";
}

json used_by(session& bus, const json& service) {
  json users = json::array();
  if (number(service, "users") == 0 || service["component"] == "") return users;
  for (json& each : bus.core.users(service["service"]))
    if (each["component"] != bus.client.name()) users.push_back(std::move(each));
  return users;
}

// Puts down with a component what it offers and uses.
void relate(json& component, const session::rows& services) {
  component["offers"] = json::array();
  component["uses"] = json::array();
  for (const json& service : services) {
    if (service["component"] == component["component"]) component["offers"].push_back(service["service"]);
    for (const json& user : service["used_by"])
      if (user["component"] == component["component"]) component["uses"].push_back(service["service"]);
  }
}

}  // namespace

session::session(bus_client& through, const options& given)
    : client(through), core(client, given.deadline()) {}

session::rows session::components() {
  rows all = joined(core.components(), core.component_counters(), "component");
  const auto is_own = [this](const json& each) { return each["component"] == client.name(); };
  all.erase(std::remove_if(all.begin(), all.end(), is_own), all.end());
  return all;
}

session::rows session::services() {
  rows all = core.services();
  for (json& each : all)
    each["kind"] = kind_name(number(each, "kind"));
  return all;
}

session::relations session::all() {
  relations found = {components(), services()};
  for (json& each : found.services) {
    each["used_by"] = used_by(*this, each);
    each["users"] = each["used_by"].size();
  }
  for (json& each : found.components)
    relate(each, found.services);
  return found;
}
