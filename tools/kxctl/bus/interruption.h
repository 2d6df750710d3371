// The signals that end a verb, and that tell of ended children: they come through a descriptor, so that the
// bus is left in order.
#ifndef KXCTL_INTERRUPTION_H
#define KXCTL_INTERRUPTION_H

#include <csignal>

#include "unique_fd.h"

class interruption {
 public:
  // Holds the signals back from now on, to the end of the program.
  interruption();

  int fd() const { return m_fd.get(); }  // readable when there is one

  // Reads what has come; throws failure when it is to be the end.
  void take() const;

  // Gives a child process the signals as they are usual.
  static void release_in_child();

 private:
  unique_fd m_fd;
};

#endif
