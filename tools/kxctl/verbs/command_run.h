// A command that runs in a process of its own, and what it writes.
#ifndef KXCTL_COMMAND_RUN_H
#define KXCTL_COMMAND_RUN_H

#include <poll.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "unique_fd.h"

class command_run {
 public:
  using words = std::vector<std::string>;

  // Starts it, with these variables ("NAME=VALUE") besides those of this process. Throws failure.
  command_run(const words& command, const words& variables);
  ~command_run();  // ends it, if it still runs
  command_run(const command_run&) = delete;
  command_run& operator=(const command_run&) = delete;

  // Become ready when there is something to read.
  void add_to(std::vector<pollfd>& entries) const;

  // Reads what there is; whether the process has ended, and all has been read.
  bool has_ended();

  bool is_done_well() const { return m_status == 0; }
  const std::string& output() const { return m_output.text; }  // no more than a message may hold, and some
  std::string problem() const;                                 // what it has written to standard error

 private:
  struct stream {
    unique_fd from;
    std::string text;

    void read();
  };

  [[noreturn]] void become(const words& command, const words& variables, int output, int errors) const;

  words m_command;
  stream m_output, m_errors;
  pid_t m_pid = 0;
  bool m_is_running = true;
  int m_status = 0;  // as waitpid has it
};

#endif
