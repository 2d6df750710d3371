// Lines for the person who watches the core. A reader that does not keep up misses lines; the core never
// waits for it.
#ifndef CONSOLE_H
#define CONSOLE_H

class console {
 public:
  // Writes each line behind `prefix`, a literal.
  console(int fd, const char* prefix) : m_fd(fd), m_prefix(prefix) {}

  void line(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  bool has_room() const;
  void write_line(const char* text);

  int m_fd;
  const char* m_prefix;
  unsigned long m_skipped = 0;
};

#endif
