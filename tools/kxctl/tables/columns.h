// A table for people.
#ifndef KXCTL_COLUMNS_H
#define KXCTL_COLUMNS_H

#include <cstdint>
#include <string>
#include <vector>

#include "shell.h"

class columns {
 public:
  using row = std::vector<std::string>;

  // The names of the columns; what is in one whose name begins with '>' is set to the right.
  explicit columns(row names);

  void add(row cells);

  // A line for each row, without spaces at its end; in front the names, in bold on a terminal.
  std::string text(const options& given) const;

 private:
  std::string line(const row& cells, const std::vector<std::size_t>& widths) const;

  row m_names;
  std::vector<bool> m_to_the_right;
  std::vector<row> m_rows;
};

// "812", "1.2K", "3.4M": of bytes or messages.
std::string short_number(double number);

// What a row of a table has in a column.
std::string cell(const nlohmann::json& row, const char* key);
std::uint64_t number(const nlohmann::json& row, const char* key);

#endif
