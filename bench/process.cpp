#include "process.h"

#include <getopt.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

child::child(const std::function<void()>& body) : m_pid(fork()) {
  if (m_pid < 0) fail("cannot start a process");
  if (m_pid > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  body();
  _exit(EXIT_SUCCESS);
}

child::child(const std::string& program)
    : child([&program] {
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(EXIT_FAILURE);
      }) {}

// Components and the core end in order on SIGTERM; one that does not is killed after a second.
child::~child() {
  for (int waited_ms = 0; !has_ended(); ++waited_ms) {
    if (waited_ms == 0) kill(m_pid, SIGTERM);
    if (waited_ms == 1000) kill(m_pid, SIGKILL);
    usleep(1000);
  }
}

bool child::has_ended() {
  if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = 0;
  return m_pid == 0;
}

bool is_bound(const char* path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  const bool bound = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

void wait_until_bound(child& process, const char* path) {
  for (int tries = 0; !is_bound(path); ++tries) {
    if (process.has_ended() || tries == 10'000) fail("nothing listens at %s", path);
    usleep(1000);
  }
}

std::string sibling(const std::string& program) {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) fail("cannot read /proc/self/exe");
  const std::string self(path, static_cast<std::size_t>(length));
  return self.substr(0, self.rfind('/') + 1) + program;
}

void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<std::size_t>(cpu), &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0) fail("there is no processor %d", cpu);
}

double now_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void fail(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  std::exit(EXIT_FAILURE);
}

options parse(int argc, char** argv, const char* usage, int smallest_size) {
  static const option known[] = {{"help", no_argument, nullptr, 'h'},
                                 {"size", required_argument, nullptr, 's'},
                                 {"pin", required_argument, nullptr, 'p'},
                                 {nullptr, 0, nullptr, 0}};
  options result;
  for (int option; (option = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
    if (option == 'h') {
      std::fputs(usage, stdout);
      std::exit(EXIT_SUCCESS);
    }
    if (option == '?') fail("%s", usage);
    (option == 's' ? result.size : result.cpu) = std::atoi(optarg);
  }
  if (argc - optind != 2) fail("%s", usage);
  result.mode = argv[optind];
  result.count = std::atol(argv[optind + 1]);
  if (result.count <= 0 || result.size < smallest_size || result.size > 2048) fail("%s", usage);
  if (result.cpu >= 0) pin(result.cpu);
  return result;
}

void progress::at(long done) {
  if (done % 1024 != 0 || now_seconds() < m_next) return;
  std::fprintf(stderr, "%ld of %ld\n", done, m_total);
  m_next = now_seconds() + 1;
}

}  // namespace bench
