#include "screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "standard_output.h"

namespace {

constexpr char begin[] = "\x1B[?1049h\x1B[?25l";  // another page, no cursor
constexpr char end[] = "\x1B[?25h\x1B[?1049l";
constexpr char home[] = "\x1B[H";
constexpr char end_of_line[] = "\x1B[K\n";
constexpr char clear_below[] = "\x1B[J";

std::size_t height() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1 ? size.ws_row - 1U : 24;
}

}  // namespace

screen::screen()
    : m_is_terminal(isatty(STDOUT_FILENO) != 0),
      m_has_keys(m_is_terminal && tcgetattr(STDIN_FILENO, &m_before) == 0) {
  if (m_is_terminal) write_out(begin);
  if (!m_has_keys) return;
  termios raw = m_before;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

screen::~screen() {
  if (m_has_keys) tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
  if (!m_is_terminal) return;
  std::fputs(end, stdout);
  std::fflush(stdout);
}

// What is too long for the terminal is left out.
void screen::show(const std::string& page) const {
  if (!m_is_terminal) return write_out(page + "\n");
  std::string drawn = home;
  std::size_t from = 0;
  for (std::size_t left = height(); left > 0 && from < page.size(); --left) {
    const std::size_t to = page.find('\n', from);
    drawn += page.substr(from, to - from) + end_of_line;
    from = to + 1;
  }
  write_out(drawn + clear_below);
}

std::vector<pollfd> screen::keys() const {
  if (!m_has_keys) return {};
  return {{STDIN_FILENO, POLLIN, 0}};
}

bool screen::is_quit() const {
  char key = 0;
  return read(STDIN_FILENO, &key, 1) <= 0 || key == 'q';
}
