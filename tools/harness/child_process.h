// Processes that a test or a benchmark starts: they end with it, even when it is killed.
#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

class child_process {
 public:
  // Runs `body` in a child process, or a program with its arguments. `death_signal` ends it when this process
  // ends. Throws std::system_error when it cannot.
  explicit child_process(const std::function<void()>& body, int death_signal = SIGTERM);
  explicit child_process(const std::vector<std::string>& command);

  // Ends it in order by SIGTERM, or after a second by SIGKILL.
  ~child_process();
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  pid_t pid() const { return m_pid; }
  bool has_ended();

  // Sends a signal (0 for none) and waits for the end. The exit status, or minus the signal that ended it.
  int end(int signal);

 private:
  pid_t m_pid;  // 0 when it has been waited for
};

// The path of a program built beside this one.
std::string sibling_program(const std::string& name);

// Whether a datagram socket is bound at `path`, and waiting until one is, as long as `process` runs; whether
// it is.
bool is_bound(const std::string& path);
bool wait_until_bound(child_process& process, const std::string& path);

#endif
