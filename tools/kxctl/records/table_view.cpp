// Records for reading: a line each, in columns that become wider when they must.
#include <algorithm>

#include "clock_text.h"
#include "printable.h"
#include "shell.h"
#include "standard_output.h"
#include "view.h"
#include "wording.h"

namespace {

constexpr char red[] = "\x1b[31m";
constexpr char yellow[] = "\x1b[33m";
constexpr char faint[] = "\x1b[2m";
constexpr char plain[] = "\x1b[0m";

constexpr std::size_t time_width = 15;
constexpr std::size_t span_width = 7;

class table_view : public view {
 public:
  table_view(std::ostream& to, names& known, bool has_header, bool has_colour)
      : m_to(to), m_names(known), m_has_header(has_header), m_has_colour(has_colour) {}

  void show(const sight& seen) override {
    const entry& what = seen.what;
    show_header(what.head.time_ns);
    if (seen.lost > 0) write("(" + std::to_string(seen.lost) + " records were lost here)", yellow);
    const std::string note = note_text(what);
    const std::string span = seen.step.kind == exchanges::DONE ? duration_text(seen.step.of->total_ns()) : "";
    std::string line = padded(clock_text(what.head.time_ns), time_width);
    line += cell(printable(what.head.sender), m_from) + cell(printable(what.head.receiver), m_to_width);
    line += cell(type_text(what), m_type) + "  " +
            std::string(span_width - std::min(span_width, width_of(span)), ' ');
    line +=
        span + cell(printable(what.head.service), m_service) + cell(command_text(what, m_names), m_command);
    line += "  " + values_text(what, m_names);
    if (!note.empty()) line += "  -- " + note;
    const bool is_bad = what.is_failure() || (what.has_message && what.type == MSG_ERR);
    write(line, is_bad ? red : note.empty() ? "" : yellow);
  }

 private:
  // The day stands above the times.
  void show_header(std::uint64_t now_ns) {
    const std::string day = time_text(now_ns, "%Y-%m-%d");
    if (!m_has_header || day == m_day) return;
    m_day = day;
    write(padded(day, time_width) + cell("FROM", m_from) + cell("TO", m_to_width) + cell("TYPE", m_type) +
              "  " + padded("  AFTER", span_width) + cell("SERVICE", m_service) + cell("CMD", m_command) +
              "  VALUES",
          faint);
  }

  static std::string cell(const std::string& text, std::size_t& width) {
    width = std::max(width, width_of(text));
    return "  " + padded(text, width);
  }

  void write(std::string line, const char* colour) {
    line.erase(line.find_last_not_of(' ') + 1);
    const bool is_coloured = m_has_colour && *colour != '\0';
    m_to << (is_coloured ? colour : "") << line << (is_coloured ? plain : "") << '\n';
  }

  std::ostream& m_to;
  names& m_names;
  const bool m_has_header;
  const bool m_has_colour;
  std::string m_day;
  std::size_t m_from = 12;
  std::size_t m_to_width = 12;
  std::size_t m_type = 5;
  std::size_t m_service = 16;
  std::size_t m_command = 4;
};

}  // namespace

std::unique_ptr<view> make_table_view(std::ostream& to, names& known, bool has_header, bool has_colour) {
  return std::make_unique<table_view>(to, known, has_header, has_colour);
}

std::unique_ptr<view> make_text_view(std::ostream& to, const options& given, names& known) {
  return given.json ? make_json_view(to, known) : make_table_view(to, known, !given.no_header, is_coloured());
}
