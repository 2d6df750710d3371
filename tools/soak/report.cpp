#include "report.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "board.h"

namespace {

constexpr double longest_wait_in_medians = 100;
constexpr long memory_growth_kib = 1024;

double us(std::uint64_t ns) { return static_cast<double>(ns) / 1e3; }
double median_us() { return us(board->latency.quantile(0.5)); }
double longest_us() { return us(board->latency.longest()); }

void print_requests(const measurements& found) {
  std::printf("requests      %ld answered, %ld failed, in %.1f s: %.0f in a second\n", board->answered.load(),
              board->failed.load(), found.seconds, static_cast<double>(board->answered) / found.seconds);
  std::printf("latency       median %.0f us, 99.9 %% %.0f us, longest %.0f us: %.1f medians\n", median_us(),
              us(board->latency.quantile(0.999)), longest_us(), longest_us() / median_us());
  std::printf("meanwhile     %ld components killed and started again, %ld datagrams of floods, %ld signals\n",
              found.kills, board->flooded.load(), board->counts.load());
}

// The requests of a short soak may be gone before there is anything to compare.
bool is_weighed(const watched_process& process) { return process.warm && process.late; }

void print_memory(const watched_process& process) {
  if (!is_weighed(process)) return;
  std::printf("memory        %s: %ld KiB after a tenth, %ld KiB at the end\n", process.name, *process.warm,
              *process.late);
}

bool grows(const watched_process& process) {
  return is_weighed(process) && *process.late - *process.warm > memory_growth_kib;
}

}  // namespace

void print_progress(long requests, long kills) {
  std::fprintf(stderr, "%ld of %ld, %ld failed, longest %.1f ms, %ld killed, %ld flooded\n",
               board->answered.load(), requests, board->failed.load(), longest_us() / 1e3, kills,
               board->flooded.load());
}

void print_failure(const char* what) { std::printf("FAILED: %s\n", what); }

bool report(const settings& with, const measurements& found) {
  print_requests(found);
  for (const watched_process& each : found.watched)
    print_memory(each);
  bool held = true;
  const auto demand = [&held](bool condition, const char* otherwise) {
    if (!condition) print_failure(otherwise);
    held = held && condition;
  };
  const bool flat = std::none_of(found.watched.begin(), found.watched.end(), grows);
  const bool soon = longest_us() <= longest_wait_in_medians * median_us();
  demand(flat || !with.weighed, "the memory grows");
  demand(soon || !with.timed, "a request waited too long");
  demand(board->failed == 0, "responses are wrong or missing, or signals out of order");
  demand(board->counts > 0, "no signal has arrived");
  return held;
}
