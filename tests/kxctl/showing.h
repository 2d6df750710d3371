// Records as a view shows them, for tests.
#ifndef SHOWING_H
#define SHOWING_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "audience.h"
#include "told.h"

using make_view_t = std::function<std::unique_ptr<view>(std::ostream& to, names& known)>;

inline std::string show_as(const make_view_t& make, const std::vector<told>& records,
                           const std::string& wanted = "") {
  std::ostringstream to;
  names known;
  const filter chosen({wanted});
  const std::unique_ptr<view> shown = make(to, known);
  audience heard(chosen, known, *shown, 0);
  for (const told& each : records)
    heard.take(each.bytes());
  heard.finish();
  return to.str();
}

#endif
