#include "output.h"

#include <cstdio>

#include "shell.h"
#include "standard_output.h"

namespace {

constexpr std::streamoff long_output = 1 << 16;

}  // namespace

void output::flush() {
  write_out(m_stream.str());
  m_stream.str("");
}

void output::flush_if_long() {
  if (m_stream.tellp() >= long_output) flush();
}

void tell_losses(std::uint64_t lost) {
  if (lost > 0)
    std::fprintf(stderr, "kxctl: %llu records were lost: more came than was read\n",
                 static_cast<unsigned long long>(lost));
}

void end_as(monitor_client::end_e end) {
  if (end == monitor_client::TIME_OVER) throw failure(TIMED_OUT, "");
  if (end == monitor_client::ENDED) throw failure(NO_CORE, "kxcore has ended");
  if (end == monitor_client::STOPPED) throw failure(INTERRUPTED, "");
}
