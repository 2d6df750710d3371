// The busiest components, again and again.
#include <algorithm>
#include <array>
#include <map>

#include "columns.h"
#include "phrases.h"
#include "screen.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using nlohmann::json;

// The keys of counters that are shown as rates.
constexpr std::array<const char*, 4> counted = {"sent", "sent_bytes", "received", "received_bytes"};

class rates {
 public:
  // Adds to each component how much it has sent and received in a second, "sent_per_s" and so on, since the
  // time before.
  void add_to(session::rows& components) {
    const auto now = steady::now();
    const double seconds = std::chrono::duration<double>(now - m_taken_at).count();
    std::map<std::string, json> seen;
    for (json& each : components) {
      const auto before = m_before.find(each["component"]);
      const bool is_known = before != m_before.end() && before->second["since"] == each["since"];
      for (const std::string key : counted)
        each[key + "_per_s"] =
            is_known ? static_cast<double>(number(each, key.c_str()) - number(before->second, key.c_str())) /
                           seconds
                     : 0.0;
      seen[each["component"]] = each;
    }
    m_before = std::move(seen);
    m_taken_at = now;
  }

 private:
  std::map<std::string, json> m_before;
  steady::time_point m_taken_at;
};

void sort_by(session::rows& components, const std::string& key) {
  const std::string column =
      std::find(counted.begin(), counted.end(), key) != counted.end() ? key + "_per_s" : key;
  std::stable_sort(components.begin(), components.end(),
                   [&](const json& one, const json& other) { return one[column] > other[column]; });
}

std::string page_of(const options& given, const session::rows& components) {
  columns table({"COMPONENT", ">PID", ">TX/s", ">TX B/s", ">RX/s", ">RX B/s", ">QUEUED", ">UNREAD", ">LOST",
                 ">DROPPED", ">REFUSED", "STATE"});
  for (const json& each : components) {
    columns::row cells = {cell(each, "component"), cell(each, "pid")};
    for (const char* const key : {"sent_per_s", "sent_bytes_per_s", "received_per_s", "received_bytes_per_s",
                                  "queued_bytes", "unread_bytes", "lost", "dropped", "refused"})
      cells.push_back(short_number(each[key].get<double>()));
    cells.push_back(state_of(each));
    table.add(std::move(cells));
  }
  return table.text(given);
}

// Until the next page; whether the user wants to end.
bool rest(bus_client& client, const screen& on, steady::time_point until) {
  std::vector<pollfd> keys = on.keys();
  while (client.wait(keys, until))
    if (!keys.empty() && keys.front().revents != 0 && on.is_quit()) return true;
  return false;
}

}  // namespace

std::vector<std::string> top_keys() {
  std::vector<std::string> keys(counted.begin(), counted.end());
  keys.insert(keys.end(), {"queued_bytes", "unread_bytes", "lost", "dropped", "refused"});
  return keys;
}

void top(const options& given, const top_options& how, steady::time_point until) {
  const auto interval =
      std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(how.interval_s));
  bus_client client(given.deadline());
  session bus(client, given);
  const screen shown;
  rates seen;
  session::rows first = bus.components();
  seen.add_to(first);
  for (unsigned long pages = 0; given.count == 0 || pages < given.count; ++pages) {
    if (rest(bus.client, shown, std::min(until, steady::now() + interval))) return;
    if (steady::now() >= until) throw failure(TIMED_OUT, "");
    bus.core.allow(given.deadline());
    session::rows components = bus.components();
    seen.add_to(components);
    sort_by(components, how.key);
    if (given.json)
      write_out(dump({{"components", components}}) + "\n");
    else
      shown.show(page_of(given, components));
  }
}
