// What a soak prints, on standard output but for its progress, and what it fails for.
#ifndef REPORT_H
#define REPORT_H

#include <sys/types.h>

#include <optional>
#include <vector>

#include "settings.h"

// A process, and the memory of its own that it holds, in KiB, after a tenth of the requests and at the end.
struct watched_process {
  const char* name;
  pid_t pid;
  std::optional<long> warm, late;
};

// What is known of a soak beside what is on the board.
struct measurements {
  double seconds = 0;
  long kills = 0;
  std::vector<watched_process> watched;
};

// A line on standard error.
void print_progress(long requests, long kills);

void print_failure(const char* what);

// Prints the figures, then whatever did not hold; whether everything held.
bool report(const settings& with, const measurements& found);

#endif
