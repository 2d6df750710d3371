#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

bool has_colour() { return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr; }

}  // namespace

std::unique_ptr<view> make_text_view(const options& given, names& known) {
  return given.json ? make_json_view(std::cout, known)
                    : make_table_view(std::cout, known, !given.no_header, has_colour());
}

void flush_output() {
  errno = 0;
  if (std::cout.flush()) return;
  throw failure(REFUSED,
                std::string("standard output: ") + (errno != 0 ? strerror(errno) : "it takes no more"));
}

void tell_losses(std::uint64_t lost) {
  if (lost > 0)
    std::fprintf(stderr, "kxctl: %llu records were lost: more came than was read\n",
                 static_cast<unsigned long long>(lost));
}

void end_as(monitor_client::end_e end) {
  if (end == monitor_client::TIME_OVER) throw failure(TIMED_OUT, "");
  if (end == monitor_client::STOPPED) throw failure(INTERRUPTED, "");
}
