// SIGINT and SIGTERM as a descriptor, so that a verb ends in order.
#ifndef KXCTL_STOP_SIGNALS_H
#define KXCTL_STOP_SIGNALS_H

#include <csignal>

#include "unique_fd.h"

class stop_signals {
 public:
  stop_signals();
  ~stop_signals();
  stop_signals(const stop_signals&) = delete;
  stop_signals& operator=(const stop_signals&) = delete;

  int fd() const { return m_fd.get(); }  // readable when one has come

 private:
  sigset_t m_before;
  unique_fd m_fd;
};

#endif
