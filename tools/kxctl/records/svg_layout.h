// Where everything of a sequence diagram is, in pixels.
#ifndef KXCTL_SVG_LAYOUT_H
#define KXCTL_SVG_LAYOUT_H

#include <string>
#include <vector>

#include "sequence.h"

class svg_layout {
 public:
  static constexpr double box_height = 26;
  static constexpr double margin = 16;
  static constexpr double loop_width = 28;
  static constexpr double loop_height = 12;
  static constexpr std::size_t rows_of_a_part = 40;  // then the names stand there again

  explicit svg_layout(const sequence& of);

  static std::string name(const std::string& participant);
  static std::string label(const arrow& of);
  static double box_width(const std::string& participant);

  double line(std::size_t participant) const { return m_lines[participant]; }
  double times() const;                  // the right end of their column
  double part(std::size_t index) const;  // the top of its names
  double row(std::size_t arrow) const;
  std::size_t parts() const { return (m_rows + rows_of_a_part - 1) / rows_of_a_part; }
  double width() const { return m_width; }
  double height() const { return end() + margin; }
  double end() const;  // of the lifelines

 private:
  void make_room(const arrow& of);
  void make_room(std::size_t begin, std::size_t end, double needed);

  std::size_t m_rows;
  std::vector<double> m_gaps;  // in front of the first lifeline, then behind each
  std::vector<double> m_lines;
  double m_width = 0;
};

#endif
