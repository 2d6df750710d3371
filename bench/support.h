// What the benchmarks have in common: their command line, their clock, their progress.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <string>

namespace bench {

// Keeps this process, and the children it starts from now on, on one processor.
void pin(int cpu);

double now_seconds();

[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What the command line of a benchmark says.
struct options {
  std::string mode;
  long count = 0;
  int size = 64;  // of a datagram, header included
  int cpu = -1;   // any
};

// Parses "MODE N [--size BYTES] [--pin CPU] [--help]"; ends the program on --help and on a mistake.
options parse(int argc, char** argv, const char* usage, int smallest_size);

// Prints a progress line to standard error about once a second, on runs that take longer.
class progress {
 public:
  explicit progress(long total) : m_total(total), m_next(now_seconds() + 1) {}
  void at(long done);

 private:
  long m_total;
  double m_next;
};

// How much is under way at a time, and how many messages an answer stands for. A receiver of the bus holds 11
// unread datagrams and kxcore more for it: of so many none is lost.
struct load {
  int window;
  int answered_at_once;
};

constexpr load round_trips = {1, 1};
constexpr load stream = {64, 8};

// Whether the mode ends so; then it does no more.
bool take_suffix(options& given, const std::string& suffix);

// Whether the mode is "oneway", which loads with a stream, or "rtt"; ends the program when it is neither.
bool is_oneway(const options& given, const char* usage);

void print_result(bool oneway, double seconds_per_message);

// Sends `count` messages, rounded up to whole answers, and receives what answers them; seconds per message.
template <typename Send, typename Receive>
double exchange(long count, const load& with, Send send, Receive receive) {
  const long rounded = (count + with.answered_at_once - 1) / with.answered_at_once * with.answered_at_once;
  progress shown(rounded);
  const double started = now_seconds();
  for (long sent = 0, answered = 0; answered < rounded;) {
    if (sent < rounded && sent - answered < with.window) {
      send(sent);
      shown.at(++sent);
    } else {
      answered += with.answered_at_once;
      receive(answered - 1);
    }
  }
  return (now_seconds() - started) / static_cast<double>(rounded);
}

// Warms up, measures and prints what a benchmark prints: us_per_roundtrip or msgs_per_s. `send` gets the
// number of the message, from 0 on in each exchange, `receive` the one of the last that the answer stands
// for.
template <typename Send, typename Receive>
void run(const options& given, bool oneway, Send send, Receive receive) {
  const load& with = oneway ? stream : round_trips;
  exchange(given.count / 10 + 1, with, send, receive);
  print_result(oneway, exchange(given.count, with, send, receive));
}

}  // namespace bench

#endif
