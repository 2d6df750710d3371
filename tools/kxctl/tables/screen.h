// A page on the terminal that is drawn again and again; anywhere else the pages follow each other. The
// terminal is left as it was.
#ifndef KXCTL_SCREEN_H
#define KXCTL_SCREEN_H

#include <poll.h>
#include <termios.h>

#include <string>
#include <vector>

class screen {
 public:
  screen();
  ~screen();
  screen(const screen&) = delete;
  screen& operator=(const screen&) = delete;

  void show(const std::string& page) const;

  // The keys, when there are any; whether 'q' was pressed.
  std::vector<pollfd> keys() const;
  bool is_quit() const;

 private:
  termios m_before = {};
  bool m_is_terminal;
  bool m_has_keys;
};

#endif
