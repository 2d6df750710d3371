#include "pause.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

// Runs out a second after it was made. Sleep tells what an interruption leaves of it in whole seconds only.
class one_second {
 public:
  one_second() : m_fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
    const itimerspec once = {{0, 0}, {1, 0}};
    timerfd_settime(m_fd, 0, &once, nullptr);
  }
  ~one_second() { close(m_fd); }
  one_second(const one_second&) = delete;
  one_second& operator=(const one_second&) = delete;

  void await_end() const {
    std::uint64_t times = 0;
    while (read(m_fd, &times, sizeof times) < 0 && errno == EINTR)
      continue;
  }

 private:
  const int m_fd;
};

}  // namespace

void pause_for_a_second() {
  const one_second second;
  for (unsigned int left = 1; left > 0;) {
    errno = 0;
    left = sleep(left);
  }
  if (errno == EINTR) second.await_end();
}
