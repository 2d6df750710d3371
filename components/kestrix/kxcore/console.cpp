#include "console.h"

#include <poll.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

// A pipe that is reported writable takes at least PIPE_BUF bytes, which no line exceeds.
bool console::has_room() const {
  pollfd entry = {m_fd, POLLOUT, 0};
  return poll(&entry, 1, 0) > 0 && (entry.revents & POLLOUT) != 0;
}

void console::write_line(const char* text) {
  if (::write(m_fd, text, std::strlen(text)) < 0) ++m_skipped;
}

void console::line(const char* format, ...) {
  if (!has_room()) {
    ++m_skipped;
    return;
  }
  char text[512];
  if (m_skipped > 0) {
    std::snprintf(text, sizeof text, "%s(%lu lines were not read in time)\n", m_prefix, m_skipped);
    m_skipped = 0;
    write_line(text);
  }
  const int begin = std::snprintf(text, sizeof text, "%s", m_prefix);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text + begin, sizeof text - 1 - static_cast<std::size_t>(begin), format, arguments);
  va_end(arguments);
  std::strcat(text, "\n");
  write_line(text);
}
