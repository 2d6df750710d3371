#include "interruption.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shell.h"

namespace {

sigset_t signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
    sigaddset(&set, each);
  return set;
}

int open_signals() {
  const sigset_t set = signals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

interruption::interruption() : m_fd(open_signals()) {
  if (fd() < 0) throw failure(NO_CORE, std::string("cannot wait for signals: ") + strerror(errno));
}

void interruption::take() const {
  signalfd_siginfo taken = {};
  while (read(fd(), &taken, sizeof taken) == sizeof taken)
    if (taken.ssi_signo != SIGCHLD) throw failure(INTERRUPTED, "");
}

void interruption::release_in_child() {
  const sigset_t set = signals();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
}
