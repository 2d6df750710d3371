#include "support.h"

#include <getopt.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<std::size_t>(cpu), &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0) fail("there is no processor %d", cpu);
}

double now_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void fail(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  std::exit(EXIT_FAILURE);
}

options parse(int argc, char** argv, const char* usage, int smallest_size) {
  static const option known[] = {{"help", no_argument, nullptr, 'h'},
                                 {"size", required_argument, nullptr, 's'},
                                 {"pin", required_argument, nullptr, 'p'},
                                 {nullptr, 0, nullptr, 0}};
  options result;
  for (int option; (option = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    if (option == 'h') {
      std::fputs(usage, stdout);
      std::exit(EXIT_SUCCESS);
    }
    if (option == '?') fail("%s", usage);
    (option == 's' ? result.size : result.cpu) = std::atoi(optarg);
  }
  if (argc - optind != 2) fail("%s", usage);
  result.mode = argv[optind];
  result.count = std::atol(argv[optind + 1]);
  const bool is_number = result.count > 0 || std::strcmp(argv[optind + 1], "0") == 0;
  if (!is_number || result.size < smallest_size || result.size > 2048) fail("%s", usage);
  if (result.cpu >= 0) pin(result.cpu);
  return result;
}

void progress::at(long done) {
  if (done % 1024 != 0 || now_seconds() < m_next) return;
  std::fprintf(stderr, "%ld of %ld\n", done, m_total);
  m_next = now_seconds() + 1;
}

bool take_suffix(options& given, const std::string& suffix) {
  std::string& mode = given.mode;
  if (mode.size() < suffix.size() || mode.compare(mode.size() - suffix.size(), suffix.size(), suffix) != 0)
    return false;
  mode.resize(mode.size() - suffix.size());
  return true;
}

bool is_oneway(const options& given, const char* usage) {
  if (given.mode != "rtt" && given.mode != "oneway") fail("%s", usage);
  return given.mode == "oneway";
}

void print_result(bool oneway, double seconds_per_message) {
  if (oneway) {
    std::printf("msgs_per_s=%.0f\n", 1 / seconds_per_message);
  } else {
    std::printf("us_per_roundtrip=%.3f\n", seconds_per_message * 1e6);
  }
}

}  // namespace bench
