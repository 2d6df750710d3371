#include "columns.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "printable.h"
#include "standard_output.h"

columns::columns(row names) : m_names(std::move(names)) {
  for (std::string& each : m_names) {
    m_to_the_right.push_back(each.front() == '>');
    if (m_to_the_right.back()) each.erase(0, 1);
  }
}

void columns::add(row cells) { m_rows.push_back(std::move(cells)); }

std::string columns::text(const options& given) const {
  std::vector<std::size_t> widths(m_names.size(), 0);
  const auto widen = [&widths](const row& cells) {
    for (std::size_t i = 0; i < cells.size(); ++i)
      widths[i] = std::max(widths[i], width_of(cells[i]));
  };
  if (!given.no_header) widen(m_names);
  std::for_each(m_rows.begin(), m_rows.end(), widen);
  std::string result;
  if (!given.no_header)
    result = (is_coloured() ? "\x1B[1m" + line(m_names, widths) + "\x1B[0m" : line(m_names, widths)) + "\n";
  for (const row& each : m_rows)
    result += line(each, widths) + "\n";
  return result;
}

std::string columns::line(const row& cells, const std::vector<std::size_t>& widths) const {
  std::string text;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0) text += "  ";
    const std::string space(widths[i] - width_of(cells[i]), ' ');
    text += m_to_the_right[i] ? space + cells[i] : cells[i] + space;
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::string short_number(double number) {
  constexpr std::array<const char*, 4> units = {"", "K", "M", "G"};
  std::size_t unit = 0;
  for (; number >= 1000 && unit + 1 < units.size(); ++unit)
    number /= 1000;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.*f%s", unit > 0 && number < 100 ? 1 : 0, number, units[unit]);
  return text.data();
}

std::string cell(const nlohmann::json& row, const char* key) {
  const nlohmann::json& content = row.at(key);
  if (!content.is_string()) return content.dump();
  const auto text = printable(content.get<std::string>());
  return text.empty() ? "-" : text;
}

std::uint64_t number(const nlohmann::json& row, const char* key) { return row.at(key).get<std::uint64_t>(); }
