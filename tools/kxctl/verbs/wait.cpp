// Waits for a service or a component.
#include <algorithm>

#include "bus_events.h"
#include "core_services.h"
#include "printable.h"
#include "verbs/verbs.h"

namespace {

using time_point = bus_client::time_point;

constexpr auto first_pause = std::chrono::milliseconds(50);
constexpr auto longest_pause = std::chrono::seconds(1);
constexpr auto last_look = std::chrono::milliseconds(500);

bool is_listed(const wait_options& what, core_services& core) {
  const core_services::rows rows = what.is_component ? core.components() : core.services();
  return std::any_of(rows.begin(), rows.end(), [&](const nlohmann::json& row) {
    if (what.is_component) return row["component"] == what.name || row["name"] == what.name;
    return row["service"] == what.name && row["component"] != "";
  });
}

// By the events, of which none is missed: they are told from before the first look. False at the end of the
// time.
bool wait_by_events(bus_client& client, const wait_options& what, time_point until) {
  const bus_events events(client, until);
  core_services core(client, until);
  bus_event event;
  while (is_listed(what, core) == what.gone) {
    do
      if (!events.next(event, until)) return false;
    while (event.what > EVENT_WITHDRAWN);
  }
  return true;
}

// Whether a service is offered, as a subscription tells.
bool is_granted(bus_client& client, const std::string& service, bool is_signal, time_point until) {
  try {
    client.give_back(client.subscribe(service, is_signal, until), until);
    return true;
  } catch (const failure& error) {
    if (error.status != REFUSED) throw;
    return false;
  }
}

bool is_there(bus_client& client, const wait_options& what, time_point until) {
  if (what.is_component) return probe_socket(bus_client::directory + what.name) == 0;
  return is_granted(client, what.name, false, until) || is_granted(client, what.name, true, until);
}

// With a core that tells nothing.
bool wait_by_trying(bus_client& client, const wait_options& what, time_point until) {
  steady::duration pause = first_pause;
  while (is_there(client, what, std::max(until, steady::now() + last_look)) == what.gone) {
    if (steady::now() >= until) return false;
    client.rest(std::min(steady::now() + pause, until));
    pause = std::min<steady::duration>(2 * pause, longest_pause);
  }
  return true;
}

bool wait_in_any_way(const wait_options& what, time_point until) {
  bus_client client(until);
  try {
    return wait_by_events(client, what, until);
  } catch (const failure& error) {
    if (error.status != NO_INTROSPECTION) throw;
    return wait_by_trying(client, what, until);
  }
}

}  // namespace

void wait(const options& given, const wait_options& what) {
  if (wait_in_any_way(what, given.deadline())) return;
  throw failure(TIMED_OUT, "'" + printable(what.name) + "' is " + (what.gone ? "still" : "not") +
                               (what.is_component ? " there" : " offered") + (what.gone ? "" : " in time"));
}
