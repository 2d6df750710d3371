#include "command_run.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "interruption.h"
#include "shell.h"

namespace {

constexpr std::size_t most_kept = 4096;  // more than a message holds
constexpr int patience_ms = 1000;

struct channel {
  unique_fd read_end, write_end;
};

channel open_channel() {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw failure(REFUSED, std::string("cannot open a pipe: ") + strerror(errno));
  channel opened = {unique_fd(ends[0]), unique_fd(ends[1])};
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  return opened;
}

}  // namespace

command_run::command_run(const words& command, const words& variables) : m_command(command) {
  channel output = open_channel();
  channel errors = open_channel();
  m_pid = fork();
  if (m_pid == 0) become(command, variables, output.write_end.get(), errors.write_end.get());
  if (m_pid < 0) throw failure(REFUSED, std::string("cannot start a process: ") + strerror(errno));
  setpgid(m_pid, m_pid);  // a group of its own, which ends with it
  m_output.from = std::move(output.read_end);
  m_errors.from = std::move(errors.read_end);
}

void command_run::become(const words& command, const words& variables, int output, int errors) const {
  setpgid(0, 0);
  interruption::release_in_child();
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(errors, STDERR_FILENO);
  for (const std::string& each : variables)
    putenv(const_cast<char*>(each.c_str()));
  std::vector<char*> arguments;
  for (const std::string& each : command)
    arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  dprintf(STDERR_FILENO, "cannot run %s: %s\n", arguments[0], strerror(errno));
  _exit(127);
}

command_run::~command_run() {
  if (!m_is_running) return;
  kill(-m_pid, SIGTERM);
  for (int waited_ms = 0; waited_ms < patience_ms && !has_ended(); ++waited_ms)
    usleep(1000);
  if (!m_is_running) return;
  kill(-m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
}

void command_run::add_to(std::vector<pollfd>& entries) const {
  for (const stream* each : {&m_output, &m_errors})
    entries.push_back({each->from.get(), POLLIN, 0});
}

// What a child of the command writes later is not waited for.
bool command_run::has_ended() {
  if (m_is_running) m_is_running = waitpid(m_pid, &m_status, WNOHANG) != m_pid;
  m_output.read();
  m_errors.read();
  return !m_is_running;
}

void command_run::stream::read() {
  std::array<char, 4096> bytes;
  ssize_t length = 0;
  while ((length = ::read(from.get(), bytes.data(), bytes.size())) > 0)
    text.append(bytes.data(), std::min(static_cast<std::size_t>(length), most_kept - text.size()));
  if (length == 0) from = unique_fd();
}

std::string command_run::problem() const {
  if (!m_errors.text.empty()) return m_errors.text;
  const bool is_killed = WIFSIGNALED(m_status);
  return m_command.front() + (is_killed ? " was ended by signal " : " ended with status ") +
         std::to_string(is_killed ? WTERMSIG(m_status) : WEXITSTATUS(m_status));
}
