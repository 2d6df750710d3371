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
#include <random>
#include <string>
#include <vector>

#include "board.h"
#include "callers.h"
#include "child_process.h"
#include "floods.h"
#include "parts.h"
#include "private_bus.h"
#include "servers.h"

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

constexpr double longest_wait_in_medians = 100;
constexpr long memory_growth_kib = 1024;
constexpr int callers_per_server = 3;
constexpr int counting_server = 1;

struct settings {
  long requests = 1'000'000;
  int components = 100;
  int stopped = 20;
  int killed = 10;
  int flooding = 5;
  bool timed = true;
  bool weighed = true;
  unsigned int seed = std::random_device()();
};

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
    const std::vector<pid_t> watched = {core.pid(), m_working.front()->pid(), m_working.back()->pid()};
    std::vector<long> warm, late;
    const std::uint64_t started = now_ns();
    long kills = 0;
    board->begun = true;
    for (int turn = 1; board->answered + board->failed < m_settings.requests; ++turn) {
      usleep(turn_us);
      if (core.has_ended() || !all_work()) return std::puts("FAILED: kxcore or a component has ended"), false;
      replace_one();
      ++kills;
      const long done = board->answered + board->failed;
      if (warm.empty() && done > m_settings.requests / 10) warm = memory_of_all(watched);
      if (board->taken < m_settings.requests) late = memory_of_all(watched);  // callers end soon afterwards
      if (turn % 100 == 0) print_progress(kills);
    }
    const double seconds = static_cast<double>(now_ns() - started) / 1e9;
    return report(seconds, kills, warm, late);
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

  static std::vector<long> memory_of_all(const std::vector<pid_t>& processes) {
    std::vector<long> kib;
    for (const pid_t each : processes)
      kib.push_back(memory_of(each));
    return kib;
  }

  void print_progress(long kills) const {
    std::fprintf(stderr, "%ld of %ld, %ld failed, longest %.1f ms, %ld killed, %ld flooded\n",
                 board->answered.load(), m_settings.requests, board->failed.load(),
                 static_cast<double>(board->latency.longest()) / 1e6, kills, board->flooded.load());
  }

  bool report(double seconds, long kills, const std::vector<long>& warm,
              const std::vector<long>& late) const {
    const auto us = [](std::uint64_t ns) { return static_cast<double>(ns) / 1e3; };
    const double median = us(board->latency.quantile(0.5));
    const double longest = us(board->latency.longest());
    std::printf("requests      %ld answered, %ld failed, in %.1f s: %.0f in a second\n",
                board->answered.load(), board->failed.load(), seconds,
                static_cast<double>(board->answered) / seconds);
    std::printf("latency       median %.0f us, 99.9 %% %.0f us, longest %.0f us: %.1f medians\n", median,
                us(board->latency.quantile(0.999)), longest, longest / median);
    std::printf(
        "meanwhile     %ld components killed and started again, %ld datagrams of floods, %ld signals\n",
        kills, board->flooded.load(), board->counts.load());
    static constexpr const char* names[] = {"kxcore", "server0", "the last caller"};
    bool flat = true;
    for (std::size_t i = 0; i < std::min(warm.size(), late.size()); ++i) {
      std::printf("memory        %s: %ld KiB after a tenth, %ld KiB at the end\n", names[i], warm[i],
                  late[i]);
      flat = flat && (!m_settings.weighed || late[i] - warm[i] <= memory_growth_kib);
    }
    const bool soon = !m_settings.timed || longest <= longest_wait_in_medians * median;
    if (!flat) std::puts("FAILED: the memory grows");
    if (!soon) std::puts("FAILED: a request waited too long");
    if (board->failed > 0) std::puts("FAILED: responses are wrong or missing, or signals out of order");
    if (board->counts == 0) std::puts("FAILED: no signal has arrived");
    return flat && soon && board->failed == 0 && board->counts > 0;
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
