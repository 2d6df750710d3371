#include "child_process.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "socket_address.h"

namespace {

constexpr int patience_ms = 10'000;
constexpr int orderly_end_ms = 1'000;
constexpr useconds_t one_ms = 1'000;

// Read before main: in a chroot a program that has entered a mount namespace of its own would see its path as
// it is outside.
std::error_code unreadable;
const std::filesystem::path own_folder =
    std::filesystem::read_symlink("/proc/self/exe", unreadable).parent_path();

}  // namespace

child_process::child_process(const std::function<void()>& body, int death_signal) {
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "cannot start a process");
  if (m_pid > 0) return;
  prctl(PR_SET_PDEATHSIG, death_signal);
  if (getppid() == parent) body();
  _exit(EXIT_SUCCESS);
}

child_process::child_process(const std::vector<std::string>& command)
    : child_process([&command] {
        std::vector<char*> arguments;
        for (const std::string& word : command)
          arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(EXIT_FAILURE);
      }) {}

child_process::~child_process() {
  for (int waited_ms = 0; !has_ended(); ++waited_ms) {
    if (waited_ms == 0) kill(m_pid, SIGTERM);
    if (waited_ms == orderly_end_ms) kill(m_pid, SIGKILL);
    usleep(one_ms);
  }
}

bool child_process::has_ended() {
  if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = 0;
  return m_pid == 0;
}

int child_process::end(int signal) {
  kill(m_pid, signal);
  int status = 0;
  waitpid(std::exchange(m_pid, 0), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string sibling_program(const std::string& name) { return own_folder / name; }

bool is_bound(const std::string& path) {
  const sockaddr_un address = socket_address(path);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool bound = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

bool wait_until_bound(child_process& process, const std::string& path) {
  for (int waited_ms = 0; waited_ms < patience_ms && !process.has_ended(); ++waited_ms) {
    if (is_bound(path)) return true;
    usleep(one_ms);
  }
  return false;
}
