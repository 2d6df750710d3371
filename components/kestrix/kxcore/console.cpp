#include "console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

namespace {

// A pipe or terminal opened anew does not block. The flag is not set on the given descriptor, whose
// description belongs to others, too; a regular file keeps its position.
int open_anew(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) return -1;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

}  // namespace

console::console(int fd, const char* prefix)
    : m_own(open_anew(fd)), m_fd(m_own.get() >= 0 ? m_own.get() : fd), m_prefix(prefix) {}

void console::write_line(const char* text) {
  pollfd entry = {m_fd, POLLOUT, 0};
  const bool has_room = poll(&entry, 1, 0) > 0 && (entry.revents & POLLOUT) != 0;
  if (!has_room || ::write(m_fd, text, std::strlen(text)) < 0) ++m_skipped;
}

void console::line(const char* format, ...) {
  char text[512];
  if (m_skipped > 0) {
    const unsigned long skipped = std::exchange(m_skipped, 0);
    std::snprintf(text, sizeof text, "%s(%lu lines were not read in time)\n", m_prefix, skipped);
    write_line(text);
    if (m_skipped > 0) {
      m_skipped += skipped;
      return;
    }
  }
  const int begin = std::snprintf(text, sizeof text, "%s", m_prefix);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text + begin, sizeof text - 1 - static_cast<std::size_t>(begin), format, arguments);
  va_end(arguments);
  std::strcat(text, "\n");
  write_line(text);
}
