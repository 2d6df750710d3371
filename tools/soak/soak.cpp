#include "soak.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <functional>
#include <string>

#include "board.h"
#include "callers.h"
#include "floods.h"
#include "servers.h"

namespace {

constexpr int callers_per_server = 3;
constexpr int counting_server = 1;

// Each part of a soak is a process of its own, which ends with this one, stopped or not.
std::unique_ptr<child_process> start(const std::function<void()>& part) {
  return std::make_unique<child_process>(part, SIGKILL);
}

std::unique_ptr<child_process> start_mortal(int number) {
  return start([number] { live_dangerously(numbered("mortal", number)); });
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

}  // namespace

soak::soak(const settings& with) : m_settings(with), m_random(with.seed) {
  const int fillers = 1;
  const int others = with.components - with.stopped - with.killed - with.flooding - fillers;
  const int servers = std::max(2, others / (1 + callers_per_server));
  start_servers(servers);
  stop_some();
  start_callers(servers, others - servers);
  start_floods();
  start_mortals();
  await(board->queues_full, with.stopped);
}

// Stopped processes take no other signal.
soak::~soak() {
  for (const processes* const group : {&m_stopped, &m_working, &m_flooding, &m_mortal}) {
    for (const auto& each : *group)
      kill(each->pid(), SIGKILL);
  }
}

bool soak::run(child_process& core) {
  measurements found;
  found.watched = {{"kxcore", core.pid(), {}, {}},
                   {"server0", m_working.front()->pid(), {}, {}},
                   {"the last caller", m_working.back()->pid(), {}, {}}};
  const std::uint64_t started = now_ns();
  board->begun = true;
  for (int turn = 1; board->answered + board->failed < m_settings.requests; ++turn) {
    usleep(turn_us);
    if (core.has_ended() || !all_work()) return print_failure("kxcore or a component has ended"), false;
    if (replace_one()) ++found.kills;
    weigh(found.watched);
    if (turn % 100 == 0) print_progress(m_settings.requests, found.kills);
  }
  found.seconds = static_cast<double>(now_ns() - started) / 1e9;
  return report(m_settings, found);
}

void soak::start_servers(int servers) {
  for (int i = 0; i < m_settings.stopped; ++i)
    m_stopped.push_back(start([i] { serve(numbered("stopped", i), board->stopped_ready); }));
  for (int i = 0; i < servers; ++i)
    m_working.push_back(start([i] {
      (i == counting_server ? serve_and_count : serve)(numbered("server", i), board->servers_ready);
    }));
  await(board->stopped_ready, m_settings.stopped);
  await(board->servers_ready, servers);
}

void soak::stop_some() {
  for (const auto& each : m_stopped)
    kill(each->pid(), SIGSTOP);
  m_filler = start([this] { fill_queues(m_settings.stopped); });
}

// The first of them watches.
void soak::start_callers(int servers, int callers) {
  for (int i = 0; i < callers; ++i)
    m_working.push_back(start([this, i, servers, seed = m_random()] {
      (i == 0 ? live_as_watching_caller : live_as_caller)(numbered("caller", servers + i), servers,
                                                          m_settings.requests, seed);
    }));
}

void soak::start_floods() {
  for (int i = 0; i < m_settings.flooding; ++i)
    m_flooding.push_back(start([i, seed = m_random()] { flood(numbered("flooder", i), seed); }));
  if (m_settings.strangers > 0)
    m_flooding.push_back(start([this] { flood_as_strangers(m_settings.strangers); }));
}

void soak::start_mortals() {
  for (int i = 0; i < m_settings.killed; ++i)
    m_mortal.push_back(start_mortal(i));
}

// A caller ends when every request has been taken.
bool soak::all_work() const {
  return board->taken >= m_settings.requests ||
         std::none_of(m_working.begin(), m_working.end(), [](const auto& each) { return each->has_ended(); });
}

// Whether there is one.
bool soak::replace_one() {
  if (m_mortal.empty()) return false;
  const std::size_t victim = m_random() % m_mortal.size();
  m_mortal[victim]->end(SIGKILL);
  m_mortal[victim] = start_mortal(static_cast<int>(victim));
  return true;
}

// The callers end soon after the last request has been taken.
void soak::weigh(std::vector<watched_process>& watched) const {
  const bool is_warm = board->answered + board->failed > m_settings.requests / 10;
  const bool is_late = board->taken < m_settings.requests;
  for (watched_process& each : watched) {
    if (is_warm && !each.warm) each.warm = memory_of(each.pid);
    if (is_late) each.late = memory_of(each.pid);
  }
}
