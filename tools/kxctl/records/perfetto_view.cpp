// A trace for the Perfetto viewer, in Chrome's JSON form: each component has what it asked for and what it
// served on its tracks, with arrows from the request to the server and from there to the answer.
#include <algorithm>
#include <map>

#include "printable.h"
#include "shell.h"
#include "tracks.h"
#include "view.h"
#include "wording.h"

namespace {

using nlohmann::json;

struct instant {
  std::string component;
  std::string name;
  std::uint64_t time_ns;
};

class perfetto_view : public view {
 public:
  perfetto_view(std::ostream& to, names& known) : m_to(to), m_names(known) {}

  void show(const sight& seen) override {
    const entry& what = seen.what;
    if (!what.is_of_message()) return;
    m_last_ns = std::max(m_last_ns, what.head.time_ns);
    if (seen.step.kind == exchanges::ASKED) m_open[seen.step.of->sequence] = {*seen.step.of, name_of(what)};
    if (seen.step.kind == exchanges::DONE) add(*seen.step.of);
    const bool is_signal = what.has_message && what.type == MSG_SIG && what.has_arrived();
    const std::string at = printable(is_signal ? what.head.receiver : what.head.sender);
    if (is_signal) m_instants.push_back({at, "SIG " + name_of(what), what.head.time_ns});
    if (what.is_failure())
      m_instants.push_back({at, name_of(what) + ": " + note_text(what), what.head.time_ns});
  }

  void finish() override {
    for (const auto& each : m_open)
      add_slice(each.second.first.client, each.second.second + " (no answer)", each.second.first.asked_ns,
                m_last_ns);
    assign_tracks(m_slices);
    m_first_ns = m_slices.empty() ? m_last_ns : m_slices.front().begin_ns;
    for (const instant& each : m_instants)
      m_first_ns = std::min(m_first_ns, each.time_ns);
    m_to << "{\"displayTimeUnit\": \"ns\", \"traceEvents\": [\n";
    for (const slice& each : m_slices)
      write(each);
    for (const instant& each : m_instants)
      write(event("i", each.component, 0, each.time_ns, {{"name", each.name}, {"s", "p"}}));
    for (const auto& each : m_processes)
      write({{"ph", "M"}, {"name", "process_name"}, {"pid", each.second}, {"args", {{"name", each.first}}}});
    m_to << "\n]}\n";
  }

 private:
  std::string name_of(const entry& what) {
    const std::string command = command_text(what, m_names);
    return what.is_management() ? command : printable(what.head.service) + ' ' + command;
  }

  void add(const exchange& done) {
    const auto asked = m_open.find(done.sequence);
    const std::string name =
        (asked == m_open.end() ? done.service : asked->second.second) + (done.is_error ? " ERR" : "");
    if (asked != m_open.end()) m_open.erase(asked);
    if (done.begun_ns == 0) return add_slice(done.client, name, done.asked_ns, done.done_ns);
    ++m_served;
    add_slice(done.client, name, done.asked_ns, done.done_ns, m_served);
    add_slice(done.server, name, done.begun_ns, done.answered_ns, m_served, true);
  }

  // `served`: the number of the exchange that a server has answered, 0 for another.
  void add_slice(const std::string& component, const std::string& name, std::uint64_t begin,
                 std::uint64_t end, std::size_t served = 0, bool by_server = false) {
    m_slices.push_back({printable(component), name, begin, std::max(begin, end), served, by_server});
  }

  void write(const slice& of) {
    const double span_us = static_cast<double>(of.end_ns - of.begin_ns) / 1000;
    write(event("X", of.component, of.track, of.begin_ns, {{"name", of.name}, {"dur", span_us}}));
    if (of.served == 0) return;
    // The way there begins with the request's slice and ends with the server's, the way back the other way
    // round.
    const std::uint64_t within = of.end_ns - (of.end_ns > of.begin_ns ? 1 : 0);
    write(flow(of, of.by_server ? "f" : "s", of.begin_ns, 2 * of.served));
    write(flow(of, of.by_server ? "s" : "f", within, 2 * of.served + 1));
  }

  json flow(const slice& of, const char* phase, std::uint64_t at, std::size_t id) {
    return event(phase, of.component, of.track, at,
                 {{"name", "kestrix"}, {"cat", "kestrix"}, {"id", id}, {"bp", "e"}});
  }

  json event(const char* phase, const std::string& component, std::size_t track, std::uint64_t at,
             json more) {
    const auto process = m_processes.emplace(component, m_processes.size() + 1).first->second;
    more.update({{"ph", phase},
                 {"pid", process},
                 {"tid", track + 1},
                 {"ts", static_cast<double>(exchange::span(m_first_ns, at)) / 1000}});
    return more;
  }

  void write(const json& event) {
    m_to << (m_is_first ? "" : ",\n") << dump(event);
    m_is_first = false;
  }

  std::ostream& m_to;
  names& m_names;
  std::map<std::uint32_t, std::pair<exchange, std::string>> m_open{};  // with their names, by their records
  std::vector<slice> m_slices{};
  std::vector<instant> m_instants{};
  std::map<std::string, std::size_t> m_processes{};
  std::size_t m_served = 0;
  std::uint64_t m_first_ns = 0;
  std::uint64_t m_last_ns = 0;
  bool m_is_first = true;
};

}  // namespace

std::unique_ptr<view> make_perfetto_view(std::ostream& to, names& known) {
  return std::make_unique<perfetto_view>(to, known);
}
