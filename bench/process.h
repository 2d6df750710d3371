// Helper processes of a benchmark: they end with it, even when it is killed.
#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace bench {

// Runs `body` in a child process, or a program with its arguments in its place. Ends the benchmark when it
// cannot.
class child {
 public:
  explicit child(const std::function<void()>& body);
  explicit child(const std::string& program);
  ~child();
  child(const child&) = delete;
  child& operator=(const child&) = delete;

  bool has_ended();

 private:
  pid_t m_pid;
};

// Whether a datagram socket is bound at `path`, and waiting until one is, as long as `process` runs.
bool is_bound(const char* path);
void wait_until_bound(child& process, const char* path);

// The path of a program built beside this one.
std::string sibling(const std::string& program);

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
