// SIGINT and SIGTERM as a descriptor, so that a verb ends in order.
#ifndef KXCTL_STOP_SIGNALS_H
#define KXCTL_STOP_SIGNALS_H

#include "unique_fd.h"

class stop_signals {
 public:
  stop_signals();  // holds them back, to the end of the program

  int fd() const { return m_fd.get(); }  // readable when one has come
  bool take() const;                     // whether one had

 private:
  unique_fd m_fd;
};

#endif
