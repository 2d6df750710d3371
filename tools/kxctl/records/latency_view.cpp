// The time that answers took, for each service, and where it went.
#include <algorithm>
#include <array>
#include <map>
#include <vector>

#include "printable.h"
#include "shell.h"
#include "view.h"

namespace {

struct part {
  const char* name;
  const char* key;
  std::uint64_t (exchange::*span)() const;
};

constexpr std::array<part, 4> parts = {{{"in all", "total", &exchange::total_ns},
                                        {"in the core", "in_core", &exchange::in_core_ns},
                                        {"for the server", "waiting", &exchange::waiting_ns},
                                        {"in the server", "in_server", &exchange::in_server_ns}}};

struct figure {
  const char* name;
  const char* key;
  unsigned int percent;
};

constexpr std::array<figure, 4> figures = {
    {{"MIN", "min", 0}, {"P50", "p50", 50}, {"P99", "p99", 99}, {"MAX", "max", 100}}};

struct tally {
  unsigned long calls = 0;
  unsigned long answers = 0;
  unsigned long errors = 0;
  std::array<std::vector<std::uint64_t>, parts.size()> spans;  // of each part, one for each answer

  unsigned long open() const { return calls > answers ? calls - answers : 0; }  // a filter may hide requests
};

// The smallest value that so many of a hundred do not exceed.
std::uint64_t percentile(const std::vector<std::uint64_t>& sorted, unsigned int percent) {
  const std::size_t rank = (sorted.size() * percent + 99) / 100;
  return sorted[std::max<std::size_t>(rank, 1) - 1];
}

class latency_view : public view {
 public:
  latency_view(std::ostream& to, bool as_json, bool has_header)
      : m_to(to), m_as_json(as_json), m_has_header(has_header) {}

  void show(const sight& seen) override {
    if (seen.step.of == nullptr || seen.step.of->is_management) return;
    tally& service = m_services[std::string(seen.step.of->service)];
    if (seen.step.kind == exchanges::ASKED) ++service.calls;
    if (seen.step.kind == exchanges::DONE) add(*seen.step.of, service);
  }

  void finish() override {
    if (!m_as_json && m_has_header) show_header();
    for (auto& each : m_services) {
      for (auto& spans : each.second.spans)
        std::sort(spans.begin(), spans.end());
      if (m_as_json)
        show_json(each.first, each.second);
      else
        show_rows(each.first, each.second);
    }
  }

 private:
  static void add(const exchange& done, tally& to) {
    ++to.answers;
    if (done.is_error) ++to.errors;
    for (std::size_t i = 0; i < parts.size(); ++i)
      to.spans[i].push_back((done.*parts[i].span)());
  }

  void show_header() {
    m_to << row("SERVICE", "CALLS", "ERRORS", "OPEN") << padded("WAITED", 14);
    for (const figure& each : figures)
      m_to << right(each.name, 9);
    m_to << '\n';
  }

  void show_rows(const std::string& service, const tally& of) {
    const auto open = std::to_string(of.open());
    std::string front = row(printable(service), std::to_string(of.calls), std::to_string(of.errors), open);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      m_to << front << padded(parts[i].name, 14);
      for (const figure& each : figures)
        m_to << right(of.spans[i].empty() ? "-" : duration_text(percentile(of.spans[i], each.percent)), 9);
      m_to << '\n';
      front = row("", "", "", "");
    }
  }

  void show_json(const std::string& service, const tally& of) {
    nlohmann::json object = {
        {"service", service}, {"calls", of.calls}, {"errors", of.errors}, {"unanswered", of.open()}};
    for (std::size_t i = 0; i < parts.size() && of.answers > 0; ++i)
      for (const figure& each : figures)
        object[parts[i].key][each.key] = percentile(of.spans[i], each.percent);
    m_to << dump(object) << '\n';
  }

  static std::string right(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, width_of(text)), ' ') + text;
  }
  static std::string row(const std::string& service, const std::string& calls, const std::string& errors,
                         const std::string& open) {
    return padded(service, 24) + right(calls, 7) + right(errors, 8) + right(open, 6) + "  ";
  }

  std::ostream& m_to;
  const bool m_as_json;
  const bool m_has_header;
  std::map<std::string, tally> m_services;
};

}  // namespace

std::unique_ptr<view> make_latency_view(std::ostream& to, bool as_json, bool has_header) {
  return std::make_unique<latency_view>(to, as_json, has_header);
}
