#include "reporter.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "KXlog.h"

namespace {

constexpr unsigned long few = 8;

// A line, or as much of it as fits.
struct formatted {
  char text[480];

  formatted(const char* format, va_list arguments) { std::vsnprintf(text, sizeof text, format, arguments); }
};

}  // namespace

reporter::reporter(bool verbose)
    : m_verbose(verbose), m_console(verbose ? STDOUT_FILENO : STDERR_FILENO, verbose ? "" : "kxcore: ") {}

void reporter::event(const char* format, ...) {
  if (!m_verbose && !kxlog::enabled(kxlog::LEVEL_INFO)) return;
  va_list arguments;
  va_start(arguments, format);
  const formatted line(format, arguments);
  va_end(arguments);
  if (m_verbose) m_console.line("%s", line.text);
  KX_LOG_INFO("%s", line.text);
}

void reporter::problem(const char* format, ...) {
  if (!m_verbose && !kxlog::enabled(kxlog::LEVEL_WARNING)) return;
  va_list arguments;
  va_start(arguments, format);
  const formatted line(format, arguments);
  va_end(arguments);
  m_console.line("%s", line.text);
  KX_LOG_WARNING("%s", line.text);
}

void reporter::dropped(tally& count, const char* from, const char* reason) {
  count.note(reason);
  if (is_reported(++count.dropped))
    problem("dropped a message of %s (%lu so far): %s", from, count.dropped, reason);
}

bool reporter::is_reported(unsigned long count) { return count <= few || (count & (count - 1)) == 0; }
