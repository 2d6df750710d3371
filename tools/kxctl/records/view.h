// Ways to show records: for reading, as JSON, as pictures, as figures.
#ifndef KXCTL_VIEW_H
#define KXCTL_VIEW_H

#include <cstdint>
#include <memory>
#include <ostream>

#include "entry.h"
#include "exchanges.h"
#include "names.h"

struct options;

struct sight {
  const entry& what;
  const exchanges::step& step;  // what it is for an exchange
  std::uint64_t lost;           // records between it and the one that was shown before
};

class view {
 public:
  virtual ~view() = default;
  virtual void show(const sight& seen) = 0;
  virtual void finish() {}  // nothing follows
};

// What views use lives longer than they do.
std::unique_ptr<view> make_text_view(std::ostream& to, const options& given,
                                     names& known);  // one of the next two
std::unique_ptr<view> make_table_view(std::ostream& to, names& known, bool has_header, bool has_colour);
std::unique_ptr<view> make_json_view(std::ostream& to, names& known);
std::unique_ptr<view> make_mermaid_view(std::ostream& to, names& known);
std::unique_ptr<view> make_svg_view(std::ostream& to, names& known);
std::unique_ptr<view> make_perfetto_view(std::ostream& to, names& known);
std::unique_ptr<view> make_latency_view(std::ostream& to, bool as_json, bool has_header);

#endif
