#include "stop_signals.h"

#include <sys/signalfd.h>

stop_signals::stop_signals() : m_before() {
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  sigprocmask(SIG_BLOCK, &stopping, &m_before);
  m_fd = unique_fd(signalfd(-1, &stopping, SFD_CLOEXEC));
}

stop_signals::~stop_signals() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
