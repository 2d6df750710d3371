// What the benchmarks have in common: their command line, their clock, their progress.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <string>

namespace bench {

// Keeps this process, and the children it starts from now on, on one processor.
void pin(int cpu);

double now_seconds();

[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What the command line of a benchmark says.
struct options {
  std::string mode;
  long count = 0;
  int size = 64;  // of a datagram, header included
  int cpu = -1;   // any
};

// Parses "MODE N [--size BYTES] [--pin CPU] [--help]"; ends the program on --help and on a mistake.
options parse(int argc, char** argv, const char* usage, int smallest_size);

// Prints a progress line to standard error about once a second, on runs that take longer.
class progress {
 public:
  explicit progress(long total) : m_total(total), m_next(now_seconds() + 1) {}
  void at(long done);

 private:
  long m_total;
  double m_next;
};

}  // namespace bench

#endif
