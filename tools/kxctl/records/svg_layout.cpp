#include "svg_layout.h"

#include <algorithm>

#include "printable.h"

namespace {

constexpr double row_height = 32;
constexpr double part_height = svg_layout::box_height + row_height * (svg_layout::rows_of_a_part + 1);
constexpr double time_width = 78;
constexpr double glyph_width = 6.65;  // of a label: all of its characters are as wide
constexpr double padding = 26;
constexpr double least_gap = 110;
constexpr std::size_t max_label = 64;
constexpr std::size_t max_name = 28;

double width_in_pixels(const std::string& text) { return glyph_width * static_cast<double>(width_of(text)); }

}  // namespace

std::string svg_layout::name(const std::string& participant) { return shortened(participant, max_name); }

std::string svg_layout::label(const arrow& of) { return shortened(of.label, max_label); }

double svg_layout::box_width(const std::string& participant) {
  return width_in_pixels(name(participant)) + padding;
}

svg_layout::svg_layout(const sequence& of) : m_rows(of.arrows().size()), m_gaps(1, time_width) {
  const std::vector<std::string>& names = of.participants();
  for (std::size_t i = 0; i < names.size(); ++i) {
    m_gaps.back() = std::max(m_gaps.back() + box_width(names[i]) / 2, i == 0 ? 0 : least_gap);
    m_gaps.push_back(box_width(names[i]) / 2 + margin);
  }
  // First what has no choice but one gap.
  for (const bool is_long : {false, true})
    for (const arrow& each : of.arrows())
      if (is_long == (std::max(each.from, each.to) - std::min(each.from, each.to) > 1)) make_room(each);
  double x = margin;
  for (const double gap : m_gaps) {
    x += gap;
    m_lines.push_back(x);
  }
  m_width = x + margin;
}

void svg_layout::make_room(const arrow& of) {
  const double needed = width_in_pixels(label(of)) + padding;
  if (of.from == of.to)
    make_room(of.from, of.from + 1, loop_width + needed);
  else
    make_room(std::min(of.from, of.to), std::max(of.from, of.to), needed);
}

// What lacks between two lifelines is spread over the gaps.
void svg_layout::make_room(std::size_t begin, std::size_t end, double needed) {
  double there = 0;
  for (std::size_t i = begin; i < end; ++i)
    there += m_gaps[i + 1];
  const double more = std::max(0.0, needed - there) / static_cast<double>(end - begin);
  for (std::size_t i = begin; i < end; ++i)
    m_gaps[i + 1] += more;
}

double svg_layout::times() const { return margin + time_width - padding / 2; }

double svg_layout::part(std::size_t index) const { return margin + part_height * static_cast<double>(index); }

double svg_layout::row(std::size_t arrow) const {
  return part(arrow / rows_of_a_part) + box_height +
         row_height * static_cast<double>(arrow % rows_of_a_part + 1);
}

double svg_layout::end() const {
  return m_rows == 0 ? margin + box_height : row(m_rows - 1) + row_height / 2;
}
