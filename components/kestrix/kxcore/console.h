// Lines for the person who watches the core. A reader that does not keep up misses lines; the core never
// waits for it.
#ifndef CONSOLE_H
#define CONSOLE_H

class console {
 public:
  explicit console(int fd) : m_fd(fd) {}

  void line(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  bool has_room() const;
  void write_line(const char* text);

  int m_fd;
  unsigned long m_skipped = 0;
};

#endif
