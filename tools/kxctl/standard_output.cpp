#include "standard_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "patient_write.h"
#include "shell.h"

void write_out(const std::string& text) {
  for (std::string_view left = text; !left.empty();) {
    const ssize_t written = write_some(STDOUT_FILENO, left);
    if (written >= 0) {
      left.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw failure(DONE, "");
    } else if (errno != EINTR) {
      throw failure(REFUSED, std::string("cannot write to standard output: ") + strerror(errno));
    }
  }
}

bool is_coloured() { return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr; }
