// The syslog of this program, in place of the C library's for itself and for the libraries that it uses: that
// one waits for room when nobody reads /dev/log, and the whole bus with it. Here such a line is skipped, and
// how many were is told when there is room again. Lines go out as the C library writes them.
#include <stdio.h>
#include <sys/socket.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <utility>

#include "socket_address.h"
#include "unique_fd.h"

namespace {

constexpr char log_socket[] = "/dev/log";
constexpr std::size_t longest_line = 1024;
constexpr std::size_t longest_gap = 64;

class system_log {
 public:
  void write(int priority, const char* format, va_list arguments) {
    char text[longest_line];
    vsnprintf(text, sizeof text, format, arguments);
    if (m_skipped > 0) {
      char gap[longest_gap];
      snprintf(gap, sizeof gap, "(%lu lines were not read in time)", m_skipped);
      if (!send(LOG_WARNING, gap)) {
        ++m_skipped;
        return;
      }
      m_skipped = 0;
    }
    if (!send(priority, text)) ++m_skipped;
  }

 private:
  bool connect_socket() {
    if (m_socket.get() < 0)
      m_socket = unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_un address = socket_address(log_socket);
    return connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  bool send(int priority, const char* text) {
    char line[longest_line + 64];
    const time_t now = time(nullptr);
    tm local = {};
    char clock[32];
    strftime(clock, sizeof clock, "%h %e %T", localtime_r(&now, &local));
    const int length = snprintf(line, sizeof line, "<%d>%s kxcore[%d]: %s", LOG_DAEMON | priority, clock,
                                static_cast<int>(getpid()), text);
    const auto size = std::min(static_cast<std::size_t>(length), sizeof line - 1);
    const auto offer = [&] { return ::send(m_socket.get(), line, size, MSG_NOSIGNAL) >= 0; };
    if (offer()) return true;
    // It is the first line, or the reader has been started again.
    return errno != EAGAIN && connect_socket() && offer();
  }

  unique_fd m_socket;
  unsigned long m_skipped = 0;
};

system_log& log() {
  static system_log instance;
  return instance;
}

}  // namespace

#pragma GCC visibility push(default)  // the libraries must find them
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log().write(priority, format, arguments);
  va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments) {
  log().write(priority, format, arguments);
}

// What a library calls that was compiled with _FORTIFY_SOURCE.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {  // NOLINT(*-reserved-identifier)
  va_list arguments;
  va_start(arguments, format);
  log().write(priority, format, arguments);
  va_end(arguments);
}
}
#pragma GCC visibility pop
