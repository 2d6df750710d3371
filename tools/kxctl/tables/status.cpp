// All that is known of one component or service.
#include <time.h>

#include <algorithm>
#include <array>

#include "columns.h"
#include "phrases.h"
#include "printable.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using nlohmann::json;

json find(const session::rows& rows, const std::string& key, const std::string& name) {
  const auto found =
      std::find_if(rows.begin(), rows.end(), [&](const json& each) { return each[key] == name; });
  return found == rows.end() ? json() : *found;
}

std::string local_time(std::uint64_t ns) {
  const auto seconds = static_cast<time_t>(ns / 1'000'000'000);
  tm local = {};
  localtime_r(&seconds, &local);
  std::array<char, 32> text{};
  strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return text.data();
}

struct line {
  const char* label;
  std::string text;
};

std::string lines_text(const std::vector<line>& lines) {
  std::string text;
  for (const line& each : lines)
    text += padded(std::string(each.label) + ":", 15) + each.text + "\n";
  return text;
}

std::string messages(const json& of, const char* count, const char* bytes) {
  return cell(of, count) + " messages, " + short_number(static_cast<double>(number(of, bytes))) + " bytes";
}

std::string component_text(const json& of) {
  const std::string state = state_of(of);
  std::string text = lines_text(
      {{"component", cell(of, "component")},
       {"pid, uid", cell(of, "pid") + ", " + cell(of, "uid")},
       {"since", local_time(number(of, "since"))},
       {"sockets", cell(of, "management_socket") + ", " + cell(of, "data_socket")},
       {"state", state.empty() ? "reads" : state},
       {"sent", messages(of, "sent", "sent_bytes")},
       {"received", messages(of, "received", "received_bytes")},
       {"queue", cell(of, "queued_bytes") + " bytes wait in the core, " + cell(of, "most_queued_bytes") +
                     " at most; " + cell(of, "unread_bytes") + " unread in its socket"},
       {"losses",
        cell(of, "refused") + " refused, " + cell(of, "dropped") + " dropped, " + cell(of, "lost") + " lost"},
       {"grants", cell(of, "grants") + " of 1024"},
       {"offers", comma_list(of["offers"])},
       {"uses", comma_list(of["uses"])}});
  for (const json& each : of["reasons"])
    text += lines_text({{"why", cell(each, "times") + " times: " + cell(each, "reason")}});
  return text;
}

std::string service_text(const json& of) {
  return lines_text(
      {{"service", cell(of, "service")},
       {"kind", cell(of, "kind")},
       {"component", of["component"] == "" ? "nobody offers it at present" : cell(of, "component")},
       {"siid", cell(of, "siid")},
       {"users", users_text(of)},
       {"requests", cell(of, "requests") + ", answered by " + cell(of, "responses") + " RSP and " +
                        cell(of, "errors") + " ERR"},
       {"signals", cell(of, "signals")}});
}

}  // namespace

void status(const options& given, const std::string& name) {
  bus_client client(given.deadline());
  session connection(client, given);
  const session::relations bus = connection.all();
  json found = find(bus.components, "component", name);
  if (found.is_null()) found = find(bus.components, "name", name);
  const bool is_component = !found.is_null();
  if (is_component) {
    found["reasons"] = connection.core.reasons(found["component"]);
  } else {
    found = find(joined(bus.services, connection.core.service_counters(), "service"), "service", name);
  }
  if (found.is_null())
    throw failure(REFUSED,
                  "no component '" + printable(name) + "' is registered, and no service of this name");
  write_out(given.json ? dump(found) + "\n" : is_component ? component_text(found) : service_text(found));
}
