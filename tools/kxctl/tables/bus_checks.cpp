// Checks of the bus.
#include <algorithm>
#include <map>

#include "checks.h"
#include "columns.h"

namespace {

using nlohmann::json;

constexpr std::uint64_t most_grants = 1024;
constexpr std::uint64_t many_grants = 920;
constexpr char vain_begin[] = "nobody offers '";

// The service that a reason of the core names as missing, else "".
std::string wanted_in_vain(const std::string& reason) {
  const std::size_t begin = sizeof vain_begin - 1;
  if (reason.rfind(vain_begin, 0) != 0 || reason.size() <= begin) return {};
  return reason.substr(begin, reason.size() - begin - 1);
}

bool is_offered(const session::rows& services, const std::string& name) {
  return std::any_of(services.begin(), services.end(),
                     [&](const json& each) { return each["service"] == name && each["component"] != ""; });
}

std::uint64_t unread_before(const session::rows& before, const json& component) {
  for (const json& each : before)
    if (each["component"] == component["component"]) return number(each, "unread_bytes");
  return 0;
}

}  // namespace

void check_readers(const session::rows& before, const session::rows& now, findings& found) {
  bool is_well = true;
  for (const json& each : now) {
    const std::uint64_t queued = number(each, "queued_bytes");
    const std::uint64_t unread = number(each, "unread_bytes");
    const bool is_behind = unread > 0 && unread_before(before, each) >= unread;
    if (queued == 0 && !is_behind) continue;
    is_well = false;
    const std::string text = cell(each, "component") + " (pid " + cell(each, "pid") +
                             ") does not read: " + std::to_string(queued) + " bytes wait in the core, " +
                             std::to_string(unread) + " in its socket";
    found.push_back({queued > 0 ? finding::FAIL : finding::WARN, text,
                     "it is stopped, or one of its handlers takes long: look at the process"});
  }
  if (is_well) found.push_back({finding::OK, "all components read", ""});
}

void check_grants(const session::rows& components, findings& found) {
  for (const json& each : components)
    if (number(each, "grants") >= many_grants)
      found.push_back({finding::WARN,
                       cell(each, "component") + " holds " + cell(each, "grants") +
                           " services and subscriptions of " + std::to_string(most_grants),
                       "give back what it does not use any more"});
}

void check_wishes(const std::vector<refusals>& all, const session::rows& services, findings& found) {
  std::map<std::string, std::string> wanted;  // each with by whom, in words
  for (const refusals& of : all)
    for (const json& each : of.reasons) {
      const std::string service = wanted_in_vain(each["reason"]);
      if (service.empty() || is_offered(services, service)) continue;
      std::string& text = wanted[service];
      text += (text.empty() ? "nobody offers '" + service + "', which is wanted by " : ", ");
      text += of.component + " (" + cell(each, "times") + " times)";
    }
  for (const auto& [service, text] : wanted)
    found.push_back({finding::WARN, text, "start the component that offers it, or mend the name"});
  if (wanted.empty()) found.push_back({finding::OK, "no service is wanted in vain", ""});
}
