// Lines for the person who watches the core. A reader that does not keep up misses lines; the core never
// waits for it.
#ifndef CONSOLE_H
#define CONSOLE_H

#include "unique_fd.h"

class console {
 public:
  // Writes each line behind `prefix`, a literal.
  console(int fd, const char* prefix);

  void line(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  void write_line(const char* text);

  unique_fd m_own;  // open for the console alone when it must not block, else -1
  int m_fd;
  const char* m_prefix;
  unsigned long m_skipped = 0;
};

#endif
