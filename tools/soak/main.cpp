// kxcore under fire: components that are stopped with full queues, that are killed and come back, and that
// flood, while the others exchange requests of which each must get its own response, and soon.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "board.h"
#include "child_process.h"
#include "private_bus.h"
#include "settings.h"
#include "soak.h"

namespace {

constexpr char usage[] =
    "usage: kxsoak [REQUESTS] [--components N] [--stopped N] [--killed N] [--flooding N] [--strangers N]\n"
    "              [--seed N] [--untimed | --responses-only]\n"
    "\n"
    "Exchanges REQUESTS (1,000,000) synchronous requests between components (100 in all) through kxcore,\n"
    "while some are stopped with full queues (20), some are killed and started again (10), and some flood\n"
    "(5), as do, where asked for, sockets of a process that is no component. Fails when a response is wrong "
    "or missing, when a request waits longer than 100 times the median\n"
    "(unless --untimed), or when the memory of kxcore or of a component grows (with --responses-only "
    "neither\n"
    "of these, for builds with sanitizers).\n";

constexpr char queue_setting[] = "/proc/sys/net/unix/max_dgram_qlen";
constexpr int skipped = 77;
constexpr int max_components = 1000;

constexpr option options[] = {{"components", required_argument, nullptr, 'c'},
                              {"stopped", required_argument, nullptr, 's'},
                              {"killed", required_argument, nullptr, 'k'},
                              {"flooding", required_argument, nullptr, 'f'},
                              {"strangers", required_argument, nullptr, 't'},
                              {"seed", required_argument, nullptr, 'r'},
                              {"untimed", no_argument, nullptr, 'u'},
                              {"responses-only", no_argument, nullptr, 'o'},
                              {"help", no_argument, nullptr, 'h'},
                              {nullptr, 0, nullptr, 0}};

[[noreturn]] void end_with_usage(bool asked) {
  std::fputs(usage, asked ? stdout : stderr);
  std::exit(asked ? EXIT_SUCCESS : 2);
}

// Two servers, a caller and the component that fills the queues are the least that work.
bool is_possible(const settings& with) {
  const int workers = with.components - with.stopped - with.killed - with.flooding;
  return with.requests > 0 && with.components <= max_components && with.stopped >= 1 && workers >= 4;
}

settings parse(int argc, char** argv) {
  settings result;
  for (int found; (found = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
    if (found == 'c') result.components = std::atoi(optarg);
    if (found == 's') result.stopped = std::atoi(optarg);
    if (found == 'k') result.killed = std::atoi(optarg);
    if (found == 'f') result.flooding = std::atoi(optarg);
    if (found == 't') result.strangers = std::atoi(optarg);
    if (found == 'r') result.seed = static_cast<unsigned int>(std::atol(optarg));
    if (found == 'u' || found == 'o') result.timed = false;
    if (found == 'o') result.weighed = false;
    if (found == 'h' || found == '?') end_with_usage(found == 'h');
  }
  if (optind < argc) result.requests = std::atol(argv[optind]);
  if (!is_possible(result)) end_with_usage(false);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const settings with = parse(argc, argv);
  if (with.flooding > 0 && access(queue_setting, W_OK) != 0) {
    std::printf("skipped: without permission to write %s kxcore has no room for a burst\n", queue_setting);
    return skipped;
  }
  std::printf("seed          %u\n", with.seed);
  std::fflush(stdout);
  enter_private_bus();
  if (!set_up_board()) return EXIT_FAILURE;
  // Its warnings, of which there are many here, would hide the progress.
  child_process core({"env", "KXTRACE_LEVEL=3", sibling_program("kxcore")});
  if (!wait_until_bound(core, "/tmp/kxcore/kxcore-d")) return EXIT_FAILURE;
  soak subject(with);
  return subject.run(core) ? EXIT_SUCCESS : EXIT_FAILURE;
}
