// kxcore: the core daemon of the bus, for development machines and tests.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>

#include "KXcore.h"
#include "KXerror.h"
#include "KXlog.h"

namespace {

constexpr char bus_directory[] = "/tmp/kxcore";
constexpr int usage_error = 2;

void print_usage(FILE* to) {
  std::fprintf(
      to,
      "usage: kxcore [--verbose]\n"
      "\n"
      "The core daemon of the kestrix bus: registers the components of this machine and forwards their\n"
      "messages, until SIGTERM, SIGINT or SIGQUIT ends it. Its sockets are in %s.\n"
      "\n"
      "  -v, --verbose  one line for each registration, subscription, refusal, loss and end of a component\n"
      "      --version  print the version and exit\n"
      "  -h, --help     print this text and exit\n"
      "\n"
      "KXTRACE_LEVEL in the environment, 0 to 9, sets the level of the log lines (4 without it).\n",
      bus_directory);
}

// The lock on the bus directory that tells a running core; it ends with the process and leaves no file
// behind.
bool lock_bus() {
  mkdir(bus_directory, 0777);
  const int directory = open(bus_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) {
    std::fprintf(stderr, "kxcore: cannot open %s: %s\n", bus_directory, strerror(errno));
    return false;
  }
  if (flock(directory, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno == EWOULDBLOCK) {
    std::fprintf(stderr, "kxcore: another kxcore is already running on this machine\n");
  } else {
    std::fprintf(stderr, "kxcore: cannot lock %s: %s\n", bus_directory, strerror(errno));
  }
  return false;
}

// Each component takes three descriptors.
void raise_descriptor_limit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// A receiver holds as many unread datagrams as this setting said when its socket was created, ten as a rule;
// then senders fail, and a component's send waits a second before it tries again. While this lives sockets
// get a queue so long that before it is full every sender's own send buffer is, which leaves room for the
// others. Where the system does not permit that, the setting stays.
class longer_socket_queues {
 public:
  longer_socket_queues() : m_before(current()) {
    if (m_before >= wanted) return;
    std::ofstream(setting) << wanted;
    if (current() >= wanted) return;
    std::fprintf(stderr,
                 "kxcore: cannot raise %s, which is %d: senders of more messages at once are held up\n",
                 setting, m_before);
    KX_LOG_WARNING("cannot raise %s, which is %d: senders of more messages at once are held up", setting,
                   m_before);
  }
  ~longer_socket_queues() {
    if (m_before < wanted) std::ofstream(setting) << m_before;
  }
  longer_socket_queues(const longer_socket_queues&) = delete;
  longer_socket_queues& operator=(const longer_socket_queues&) = delete;

 private:
  static constexpr char setting[] = "/proc/sys/net/unix/max_dgram_qlen";
  static constexpr int wanted{KXcore::socket_queue};

  static int current() {
    int length = wanted;  // without the setting there is nothing to raise
    std::ifstream(setting) >> length;
    return length;
  }

  const int m_before;
};

std::unique_ptr<KXcore> create_core(bool verbose) {
  const longer_socket_queues queues;
  return std::make_unique<KXcore>(verbose);
}

// The core reads the signals that end it from a descriptor; what it writes to closed pipes is lost.
void prepare_signals() {
  sigset_t termination;
  sigemptyset(&termination);
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM})
    sigaddset(&termination, signal);
  sigprocmask(SIG_BLOCK, &termination, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

int run(bool verbose) {
  openlog("kxcore", LOG_PID, LOG_DAEMON);
  if (!lock_bus()) return EXIT_FAILURE;
  prepare_signals();
  raise_descriptor_limit();
  try {
    create_core(verbose)->start(KXcomponent::CMP_START_AND_LOOP);
    return EXIT_SUCCESS;
  } catch (const KXerror::error_e&) {
    std::fprintf(stderr, "kxcore: cannot bind its sockets in %s: %s\n", bus_directory, strerror(errno));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kxcore: %s\n", error.what());
  }
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  static const option options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
  bool verbose = false;
  for (int option; (option = getopt_long(argc, argv, "hv", options, nullptr)) != -1;) {
    switch (option) {
      case 'h':
        print_usage(stdout);
        return EXIT_SUCCESS;
      case 'v':
        verbose = true;
        break;
      case 'V':
        std::printf("kxcore " KX_VERSION "\n");
        return EXIT_SUCCESS;
      default:
        print_usage(stderr);
        return usage_error;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "kxcore: unexpected argument '%s'\n", argv[optind]);
    print_usage(stderr);
    return usage_error;
  }
  return run(verbose);
}
