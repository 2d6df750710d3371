// kxcore under fire: components that are stopped with full queues, that are killed and come back, and that
// flood, while the others exchange requests of which each must get its own response, and soon.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "board.h"
#include "callers.h"
#include "child_process.h"
#include "floods.h"
#include "parts.h"
#include "private_bus.h"
#include "report.h"
#include "servers.h"
#include "settings.h"

namespace {

constexpr char usage[] =
    "usage: kxsoak [REQUESTS] [--components N] [--stopped N] [--killed N] [--flooding N] [--seed N]\n"
    "              [--untimed | --responses-only]\n"
    "\n"
    "Exchanges REQUESTS (1,000,000) synchronous requests between components (100 in all) through kxcore,\n"
    "while some are stopped with full queues (20), some are killed and started again (10), and some flood\n"
    "(5). Fails when a response is wrong or missing, when a request waits longer than 100 times the median\n"
    "(unless --untimed), or when the memory of kxcore or of a component grows (with --responses-only "
    "neither\n"
    "of these, for builds with sanitizers).\n";

constexpr char queue_setting[] = "/proc/sys/net/unix/max_dgram_qlen";
constexpr int skipped = 77;
constexpr int max_components = 1000;

constexpr int callers_per_server = 3;
constexpr int counting_server = 1;

// Each part of a soak is a process of its own, which ends with this one, stopped or not.
std::unique_ptr<child_process> start(const std::function<void()>& part) {
  return std::make_unique<child_process>(part, SIGKILL);
}

// The memory of its own that a process holds, in KiB.
long memory_of(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    long kib = 0;
    if (word == "RssAnon:" && status >> kib) return kib;
  }
  return -1;
}

class soak {
 public:
  explicit soak(const settings& with) : m_settings(with), m_random(with.seed) {
    const int others = with.components - with.stopped - with.killed - with.flooding - 1;
    const int servers = std::max(2, others / (1 + callers_per_server));
    for (int i = 0; i < with.stopped; ++i)
      m_stopped.push_back(start([i] { serve(numbered("stopped", i), board->stopped_ready); }));
    for (int i = 0; i < servers; ++i)
      m_working.push_back(start([i] {
        (i == counting_server ? serve_and_count : serve)(numbered("server", i), board->servers_ready);
      }));
    await(board->stopped_ready, with.stopped);
    await(board->servers_ready, servers);
    for (const auto& each : m_stopped)
      kill(each->pid(), SIGSTOP);
    m_filler = start([&with] { fill_queues(with.stopped); });
    for (int i = servers; i < others; ++i)
      m_working.push_back(start([&with, i, servers, seed = m_random()] {
        (i == servers ? live_as_watching_caller : live_as_caller)(numbered("caller", i), servers,
                                                                  with.requests, seed);
      }));
    for (int i = 0; i < with.flooding; ++i)
      m_flooding.push_back(start([i, seed = m_random()] { flood(numbered("flooder", i), seed); }));
    for (int i = 0; i < with.killed; ++i)
      m_mortal.push_back(start([i] { live_dangerously(numbered("mortal", i)); }));
    await(board->queues_full, with.stopped);
  }

  // Stopped processes take no other signal.
  ~soak() {
    for (const processes* const group : {&m_stopped, &m_working, &m_flooding, &m_mortal}) {
      for (const auto& each : *group)
        kill(each->pid(), SIGKILL);
    }
  }
  soak(const soak&) = delete;
  soak& operator=(const soak&) = delete;

  // Whether everything held.
  bool run(child_process& core) {
    measurements found;
    found.watched = {{"kxcore", core.pid(), {}, {}},
                     {"server0", m_working.front()->pid(), {}, {}},
                     {"the last caller", m_working.back()->pid(), {}, {}}};
    const std::uint64_t started = now_ns();
    board->begun = true;
    for (int turn = 1; board->answered + board->failed < m_settings.requests; ++turn) {
      usleep(turn_us);
      if (core.has_ended() || !all_work()) return print_failure("kxcore or a component has ended"), false;
      replace_one();
      ++found.kills;
      weigh(found.watched);
      if (turn % 100 == 0) print_progress(m_settings.requests, found.kills);
    }
    found.seconds = static_cast<double>(now_ns() - started) / 1e9;
    return report(m_settings, found);
  }

 private:
  using processes = std::vector<std::unique_ptr<child_process>>;

  void replace_one() {
    if (m_mortal.empty()) return;
    const std::size_t victim = m_random() % m_mortal.size();
    m_mortal[victim]->end(SIGKILL);
    m_mortal[victim] = start([victim] { live_dangerously(numbered("mortal", static_cast<int>(victim))); });
  }

  // A caller ends when every request has been taken.
  bool all_work() const {
    return board->taken >= m_settings.requests ||
           std::none_of(m_working.begin(), m_working.end(),
                        [](const auto& each) { return each->has_ended(); });
  }

  // The callers end soon after the last request has been taken.
  void weigh(std::vector<watched_process>& watched) const {
    const bool is_warm = board->answered + board->failed > m_settings.requests / 10;
    const bool is_late = board->taken < m_settings.requests;
    for (watched_process& each : watched) {
      if (is_warm && !each.warm) each.warm = memory_of(each.pid);
      if (is_late) each.late = memory_of(each.pid);
    }
  }

  const settings m_settings;
  random_source m_random;
  processes m_stopped, m_working, m_flooding, m_mortal;
  std::unique_ptr<child_process> m_filler;
};

settings parse(int argc, char** argv) {
  static const option options[] = {{"components", required_argument, nullptr, 'c'},
                                   {"stopped", required_argument, nullptr, 's'},
                                   {"killed", required_argument, nullptr, 'k'},
                                   {"flooding", required_argument, nullptr, 'f'},
                                   {"seed", required_argument, nullptr, 'r'},
                                   {"untimed", no_argument, nullptr, 'u'},
                                   {"responses-only", no_argument, nullptr, 'o'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  settings result;
  for (int found; (found = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
    if (found == 'c') result.components = std::atoi(optarg);
    if (found == 's') result.stopped = std::atoi(optarg);
    if (found == 'k') result.killed = std::atoi(optarg);
    if (found == 'f') result.flooding = std::atoi(optarg);
    if (found == 'r') result.seed = static_cast<unsigned int>(std::atol(optarg));
    if (found == 'u' || found == 'o') result.timed = false;
    if (found == 'o') result.weighed = false;
    if (found == 'h' || found == '?') {
      std::fputs(usage, found == 'h' ? stdout : stderr);
      std::exit(found == 'h' ? EXIT_SUCCESS : 2);
    }
  }
  if (optind < argc) result.requests = std::atol(argv[optind]);
  const int workers = result.components - result.stopped - result.killed - result.flooding;
  if (result.requests <= 0 || result.components > max_components || result.stopped < 1 || workers < 4) {
    std::fputs(usage, stderr);
    std::exit(2);
  }
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
  const bool held = subject.run(core);
  return held ? EXIT_SUCCESS : EXIT_FAILURE;
}
