// kxcore: the core daemon of the bus, for development machines and tests.
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "KXcore.h"
#include "KXerror.h"
#include "bus_directory.h"
#include "longer_queues.h"
#include "reporter.h"

namespace {

constexpr char bus_path[] = "/tmp/kxcore";
constexpr int usage_error = 2;

void print_usage(FILE* to) {
  std::fprintf(
      to,
      "usage: kxcore [--verbose] [--monitor-group GROUP]\n"
      "\n"
      "The core daemon of the kestrix bus: registers the components of this machine and forwards their\n"
      "messages, until SIGTERM, SIGINT or SIGQUIT ends it. Its sockets are in %s.\n"
      "\n"
      "  -v, --verbose  one line for each registration, subscription, refusal, loss and end of a component\n"
      "      --monitor-group GROUP\n"
      "                 who may watch all messages, beside root and the user who runs kxcore\n"
      "      --version  print the version and exit\n"
      "  -h, --help     print this text and exit\n"
      "\n"
      "KXTRACE_LEVEL in the environment, 0 to 9, sets the level of the log lines (4 without it).\n",
      bus_path);
}

// Each component takes four descriptors.
void raise_descriptor_limit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::unique_ptr<KXcore> create_core(bus_directory& place, reporter& report) {
  const longer_queues queues;
  if (!queues.refusal().empty())
    report.problem("its sockets have short queues, senders of many messages at once are held up: %s",
                   queues.refusal().c_str());
  return std::make_unique<KXcore>(place, report);
}

// The core's own descriptors would get the numbers of closed standard streams, and its lines go into its
// files.
void open_standard_streams() {
  for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
    if (fd <= STDERR_FILENO) continue;
    close(fd);
    return;
  }
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

int run(bool verbose, gid_t monitor_group) {
  prepare_signals();
  raise_descriptor_limit();
  try {
    reporter report(verbose);
    bus_directory place(bus_path);
    for (const char* const socket : {"/kxcore", "/kxcore-d"})
      bus_directory::check_place(std::string(bus_path) + socket);
    const std::unique_ptr<KXcore> core = create_core(place, report);
    core->admit_monitors(monitor_group);
    core->start(KXcomponent::CMP_START_AND_LOOP);
    return core->has_failed() ? EXIT_FAILURE : EXIT_SUCCESS;
  } catch (const KXerror::error_e&) {
    std::fprintf(stderr, "kxcore: cannot bind its sockets in %s: %s\n", bus_path, strerror(errno));
  } catch (const std::bad_alloc&) {
    std::fputs("kxcore: no memory\n", stderr);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kxcore: %s\n", error.what());
  }
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_streams();
  static const option options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"monitor-group", required_argument, nullptr, 'm'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
  bool verbose = false;
  auto monitor_group = static_cast<gid_t>(-1);
  for (int option; (option = getopt_long(argc, argv, "hv", options, nullptr)) != -1;) {
    switch (option) {
      case 'h':
        print_usage(stdout);
        return EXIT_SUCCESS;
      case 'm':
        if (const group* const named = getgrnam(optarg)) {
          monitor_group = named->gr_gid;
          break;
        }
        std::fprintf(stderr, "kxcore: there is no group '%s'\n", optarg);
        print_usage(stderr);
        return usage_error;
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
  return run(verbose, monitor_group);
}
