#include "standard_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shell.h"

void write_out(const std::string& text) {
  const bool is_taken =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (is_taken) return;
  if (errno == EPIPE) throw failure(DONE, "");
  throw failure(REFUSED, std::string("cannot write to standard output: ") + strerror(errno));
}

bool is_coloured() { return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr; }
