// A sequence diagram as SVG: a lifeline for each component, an arrow for each message, the times at the left.
#include <cstdio>

#include "sequence.h"
#include "svg_layout.h"

namespace {

constexpr double head_length = 9;
constexpr double head_width = 4;
constexpr double above_line = 6;  // the label

constexpr char style[] = R"(<style>
text { font: 11px "DejaVu Sans Mono", ui-monospace, Menlo, Consolas, monospace; fill: #24292f }
.ground { fill: #ffffff } .halo { fill: #ffffff }
.name { font-weight: bold; text-anchor: middle }
.box { fill: #eef2f6; stroke: #8c959f }
.life { stroke: #afb8c1; stroke-dasharray: 2 4 }
.time { fill: #6e7781; text-anchor: end }
.label { text-anchor: middle }
.line { stroke: #24292f; fill: none; stroke-width: 1.2 } .head { fill: #24292f }
.answer .line, .error .line { stroke-dasharray: 6 4 }
.signal .line { stroke: #0969da } .signal .head, .signal .text { fill: #0969da }
.error .line, .failure .line { stroke: #cf222e } .error .head, .error .text, .failure .text { fill: #cf222e }
@media (prefers-color-scheme: dark) {
text { fill: #d6dde4 } .ground, .halo { fill: #0d1117 } .box { fill: #21262d; stroke: #6e7681 }
.life { stroke: #484f58 } .time { fill: #8b949e } .line { stroke: #d6dde4 } .head { fill: #d6dde4 }
.signal .line { stroke: #58a6ff } .signal .head, .signal .text { fill: #58a6ff }
.error .line, .failure .line { stroke: #ff7b72 } .error .head, .error .text, .failure .text { fill: #ff7b72 }
}
</style>
)";

const char* class_of(arrow::kind_e kind) {
  static const char* const classes[] = {"request", "answer", "error", "signal", "failure"};
  return classes[kind];
}

std::string xml(const std::string& text) {
  std::string result;
  for (const char each : text)
    result += each == '<' ? "&lt;" : each == '>' ? "&gt;" : each == '&' ? "&amp;" : std::string(1, each);
  return result;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string point(double x, double y) { return number(x) + ' ' + number(y); }

std::string text_at(const char* kind, double x, double y, const std::string& text) {
  return std::string("<text class=\"") + kind + "\" x=\"" + number(x) + "\" y=\"" + number(y) + "\">" +
         xml(text) + "</text>";
}

std::string line_along(const std::string& path) { return "<path class=\"line\" d=\"" + path + "\"/>"; }

// Points to x, coming from the left (+1) or the right (-1); a cross where nothing arrives.
std::string head_at(double x, double y, double direction, bool arrives) {
  const double back = x - direction * head_length;
  if (arrives)
    return "<path class=\"head\" d=\"M" + point(x, y) + " L" + point(back, y - head_width) + " L" +
           point(back, y + head_width) + "z\"/>";
  return line_along("M" + point(x - head_width, y - head_width) + " l" +
                    point(2 * head_width, 2 * head_width) + " m" + point(0, -2 * head_width) + " l" +
                    point(-2 * head_width, 2 * head_width));
}

class svg_view : public view {
 public:
  svg_view(std::ostream& to, names& known) : m_to(to), m_sequence(known) {}

  void show(const sight& seen) override { m_sequence.add(seen); }

  void finish() override {
    const svg_layout places(m_sequence);
    const std::string size = number(places.width()) + "\" height=\"" + number(places.height());
    m_to << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << size << "\" viewBox=\"0 0 "
         << point(places.width(), places.height()) << "\">\n"
         << style << "<rect class=\"ground\" width=\"" << size << "\"/>\n";
    draw_lifelines(places);
    for (std::size_t part = 0; part < places.parts(); ++part)
      draw_names(places, places.part(part));
    for (std::size_t i = 0; i < m_sequence.arrows().size(); ++i)
      draw(places, m_sequence.arrows()[i], places.row(i));
    m_to << "</svg>\n";
  }

 private:
  void draw_lifelines(const svg_layout& places) {
    for (std::size_t i = 0; i < m_sequence.participants().size(); ++i)
      m_to << "<path class=\"life\" d=\"M" << point(places.line(i), places.part(0)) << " V"
           << number(places.end()) << "\"/>\n";
  }

  void draw_names(const svg_layout& places, double top) {
    for (std::size_t i = 0; i < m_sequence.participants().size(); ++i) {
      const std::string& name = m_sequence.participants()[i];
      const double width = svg_layout::box_width(name);
      m_to << "<rect class=\"box\" rx=\"4\" x=\"" << number(places.line(i) - width / 2) << "\" y=\""
           << number(top) << "\" width=\"" << number(width) << "\" height=\""
           << number(svg_layout::box_height) << "\"/>"
           << text_at("name", places.line(i), top + svg_layout::box_height / 2 + 4, svg_layout::name(name))
           << '\n';
    }
  }

  void draw(const svg_layout& places, const arrow& what, double y) {
    m_to << "<g class=\"" << class_of(what.kind) << "\"><title>" << xml(what.label) << "</title>"
         << text_at("time", places.times(), y + 4, time_of(what))
         << (what.from == what.to ? loop(places, what, y) : straight(places, what, y)) << "</g>\n";
  }

  std::string time_of(const arrow& what) const {
    const std::uint64_t ns = exchange::span(m_sequence.arrows().front().time_ns, what.time_ns);
    char text[32];
    std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(ns) / 1e9);
    return text;
  }

  static std::string straight(const svg_layout& places, const arrow& what, double y) {
    const double from = places.line(what.from);
    const double to = places.line(what.to);
    const double direction = to > from ? 1 : -1;
    return line_along("M" + point(from, y) + " H" + number(to - direction * head_length / 2)) +
           head_at(to, y, direction, what.kind != arrow::FAILURE) +
           text_at("label text", (from + to) / 2, y - above_line, svg_layout::label(what));
  }

  static std::string loop(const svg_layout& places, const arrow& what, double y) {
    const double x = places.line(what.from);
    const double right = x + svg_layout::loop_width;
    const double top = y - svg_layout::loop_height;
    return line_along("M" + point(x, top) + " H" + number(right) + " V" + number(y) + " H" +
                      number(x + head_length / 2)) +
           head_at(x, y, -1, what.kind != arrow::FAILURE) +
           text_at("text", right + above_line, y - above_line + 4, svg_layout::label(what));
  }

  std::ostream& m_to;
  sequence m_sequence;
};

}  // namespace

std::unique_ptr<view> make_svg_view(std::ostream& to, names& known) {
  return std::make_unique<svg_view>(to, known);
}
