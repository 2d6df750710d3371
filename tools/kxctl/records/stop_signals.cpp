#include "stop_signals.h"

#include <sys/signalfd.h>

#include <csignal>

stop_signals::stop_signals() {
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  sigprocmask(SIG_BLOCK, &stopping, nullptr);
  m_fd = unique_fd(signalfd(-1, &stopping, SFD_NONBLOCK | SFD_CLOEXEC));
}

bool stop_signals::take() const {
  signalfd_siginfo taken = {};
  return read(m_fd.get(), &taken, sizeof taken) == sizeof taken;
}
