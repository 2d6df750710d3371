// The wait for a datagram.
#ifndef READABLE_WAIT_H
#define READABLE_WAIT_H

#include <sys/select.h>

class readable_wait {
 public:
  // Of the descriptor `fd`, for ten seconds, or without limit.
  readable_wait(int fd, bool limited);

  // What select returns: 1 when the descriptor is readable, 0 when the time has passed, -1 with errno. It may
  // then be called again, for the time that is left.
  int operator()();

 private:
  int poll_instead();

  const int m_fd;
  fd_set m_readable;
  timeval m_left;          // of select
  unsigned int m_left_ms;  // of poll
  timeval* const m_limit;
};

#endif
