// What the verbs for records do; the command line is in commands.cpp.
#ifndef KXCTL_VERBS_H
#define KXCTL_VERBS_H

#include <string>
#include <vector>

#include "names.h"
#include "shell.h"

// Options that all of them have.
struct record_options {
  const options& given;
  steady::time_point until;         // the end of a stream
  std::vector<std::string> filter;  // its terms
};

struct show_options {
  std::string file;
  std::string sequence;  // "mermaid", "svg", or "" for none
  bool perfetto = false;
  bool stats = false;
};

struct capture_options {
  std::string file;    // "-" for standard output
  std::string ring;    // such as 30s or 8M, "" for none
  std::string on;      // the filter for what makes the ring be written
  std::string rotate;  // such as 10M:5
};

void monitor(const record_options& how, const names::fetch_t& fetch);
void capture(const record_options& how, const capture_options& what);
void show(const record_options& how, const show_options& what);

#endif
