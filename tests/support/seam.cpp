#include "seam.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "memory_sockets.h"
#include "trace.h"

namespace {

constexpr double real_time = -1;

// Nothing here allocates when a call is noted.
struct armed_call {
  int count = 0;
  int error = 0;
  int failures = 0;
  int skip = 0;
  std::function<void()> hook;
  std::array<char, 4000> given = {};
  std::size_t given_size = 0;
};

// Everything that a reset brings back to its beginnings.
struct seam_state {
  std::array<armed_call, seam::CALLS> calls;
  std::function<void()> idle;
  std::string opened_instead;
  bool in_memory = false;  // the sockets
  double now = real_time;
  int timer_fd = -1;  // armed on the fake clock, for timer_end
  double timer_end = 0;
};

// Lines are taken from signal handlers too, so their storage is fixed.
struct line_record {
  int priority;
  char text[1200];
};

seam_state state;
std::array<line_record, 4096> records;
std::atomic<std::size_t> record_count{0};
thread_local bool arms = false;    // whether this thread is the one that armed the seam
thread_local bool inside = false;  // whether it runs a hook

// The next definition of a function: the C library's, or a sanitizer's.
template <typename Function>
Function real(const char* name, Function) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) real(#name, &::name)

// The same of a call on sockets, which may be in memory.
#define NEXT(name) (arms && state.in_memory ? &memory_sockets::name : REAL(name))

void run(std::function<void()> hook) {
  if (!hook || inside) return;
  inside = true;
  hook();
  inside = false;
}

// What a call that fails returns.
int failure() { return errno == 0 ? 0 : -1; }

bool clock_is_fake() { return arms && state.now >= 0; }

// The milliseconds that an interrupted call has waited, of those it was to.
int waited(long long limit_ms) {
  constexpr int part_ms = 4000;
  if (!clock_is_fake() || errno != EINTR || limit_ms <= part_ms) return 0;
  seam::advance(part_ms / 1000);
  return part_ms;
}

template <typename Look>
int count_ready(const Look& look) {
  int ready = look();
  if (ready != 0) return ready;
  run(state.idle);
  return look();
}

}  // namespace

namespace seam {

void reset() {
  arms = true;
  inside = false;
  state = {};
  clear_lines();
  trace_level(9);
}

void disarm() { arms = false; }
void enlist() { arms = true; }

int count(call_e call) { return state.calls[call].count; }

int count_all() {
  int sum = 0;
  for (int call = 0; call < CALLS; ++call)
    sum += count(static_cast<call_e>(call));
  return sum;
}

std::string given(call_e call) { return {&state.calls[call].given[0], state.calls[call].given_size}; }

void fail(call_e call, int error, int times, int skip) {
  state.calls[call].error = error;
  state.calls[call].failures = times;
  state.calls[call].skip = skip;
}

bool has_failed(call_e call) { return state.calls[call].failures == 0; }

bool fails(call_e call, std::string_view given) {
  if (!arms || inside) return false;
  armed_call& entry = state.calls[call];
  ++entry.count;
  if (!given.empty() && entry.given_size + given.size() < entry.given.size()) {
    given.copy(&entry.given[entry.given_size], given.size());
    entry.given_size += given.size();
    entry.given[entry.given_size++] = ' ';
  }
  run(entry.hook);
  if (entry.failures == 0 || entry.skip-- > 0) return false;
  --entry.failures;
  entry.skip = 0;
  errno = entry.error;
  return true;
}

void before(call_e call, std::function<void()> hook) { state.calls[call].hook = std::move(hook); }

void sockets_in_memory() {
  memory_sockets::clear();
  state.in_memory = true;
}

void open_instead(const std::string& path) { state.opened_instead = path; }
void fake_clock(double seconds) { state.now = seconds; }
void advance(double seconds) { state.now += seconds; }
double now() { return state.now; }
void when_idle(std::function<void()> hook) { state.idle = std::move(hook); }

std::vector<log_line> lines() {
  std::vector<log_line> result;
  for (std::size_t i = 0; i < std::min(record_count.load(), records.size()); ++i)
    result.push_back({records[i].priority, records[i].text});
  return result;
}

int times_logged(const std::string& text) {
  int times = 0;
  for (const log_line& line : lines())
    times += line.text.find(text) != std::string::npos ? 1 : 0;
  return times;
}

bool logged(const std::string& text) { return times_logged(text) > 0; }

void clear_lines() { record_count = 0; }

void trace_level(int level) { g_traceObject->level = level; }

}  // namespace seam

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (const std::size_t index = record_count++; index < records.size()) {
    vsnprintf(records[index].text, sizeof records[index].text, format, arguments);
    records[index].priority = priority;
  }
  va_end(arguments);
}

void logAssertFailed(const char* expression, const char* path, int line, const char* function) {
  syslog(LOG_ERR, "[ASSERT] %s:%d (%s) - %s", path, line, function, expression);
}

// A call that only ever passes or fails.
#define PASS_THROUGH(result, name, call, given, parameters, arguments, exceptions) \
  result name parameters exceptions {                                              \
    return seam::fails(seam::call, given) ? failure() : NEXT(name) arguments;      \
  }

PASS_THROUGH(int, access, ACCESS, path, (const char* path, int mode), (path, mode), noexcept)
PASS_THROUGH(int, bind, BIND, "", (int fd, const struct sockaddr* address, socklen_t length),
             (fd, address, length), noexcept)
PASS_THROUGH(int, mkdir, MKDIR, mode == 0777 ? path : "", (const char* path, mode_t mode), (path, mode),
             noexcept)
PASS_THROUGH(ssize_t, recvfrom, RECVFROM, "",
             (int fd, void* to, size_t size, int flags, struct sockaddr* from, socklen_t* length),
             (fd, to, size, flags, from, length), )
PASS_THROUGH(int, remove, REMOVE, path, (const char* path), (path), noexcept)
PASS_THROUGH(ssize_t, sendto, SENDTO, "",
             (int fd, const void* from, size_t size, int flags, const struct sockaddr* to, socklen_t length),
             (fd, from, size, flags, to, length), )
PASS_THROUGH(int, setsockopt, SETSOCKOPT, "",
             (int fd, int level, int option, const void* value, socklen_t length),
             (fd, level, option, value, length), noexcept)
PASS_THROUGH(int, socket, SOCKET, std::to_string(type), (int domain, int type, int protocol),
             (domain, type, protocol), noexcept)

// A descriptor is closed, whatever close reports.
int close(int fd) {
  const bool failed = seam::fails(seam::CLOSE);
  const int error = errno;
  const int result = NEXT(close)(fd);
  if (!failed) return result;
  errno = error;
  return -1;
}

int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  if (clock == CLOCK_MONOTONIC && seam::fails(seam::CLOCK_GETTIME)) return -1;
  if (clock != CLOCK_MONOTONIC || !clock_is_fake()) return REAL(clock_gettime)(clock, time);
  const auto microseconds = std::llround(state.now * 1e6);
  time->tv_sec = static_cast<time_t>(microseconds / 1'000'000);
  time->tv_nsec = static_cast<long>(microseconds % 1'000'000 * 1000);
  return 0;
}

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return seam::fails(seam::FCNTL) ? -1 : NEXT(fcntl)(fd, command, argument);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (seam::fails(seam::OPEN, path)) return -1;
  return NEXT(open)(arms && !state.opened_instead.empty() ? state.opened_instead.c_str() : path, flags, mode);
}

int poll(struct pollfd* entries, nfds_t count, int timeout) {
  if (seam::fails(seam::POLL, std::to_string(timeout))) return waited(timeout), -1;
  if (!clock_is_fake()) return NEXT(poll)(entries, count, timeout);
  const int ready = count_ready([=] { return NEXT(poll)(entries, count, 0); });
  if (ready != 0) return ready;
  if (timeout < 0) return NEXT(poll)(entries, count, timeout);
  seam::advance(timeout / 1000.0);
  return 0;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, struct timeval* limit) {
  if (seam::fails(seam::SELECT, limit == nullptr ? "-1" : std::to_string(limit->tv_sec))) {
    if (limit != nullptr) limit->tv_sec -= waited(1000ll * limit->tv_sec) / 1000;
    return -1;
  }
  if (!clock_is_fake()) return NEXT(select)(count, readable, writable, exceptional, limit);
  const fd_set asked = *readable;
  const auto look = [=](struct timeval* waiting) {
    *readable = asked;
    return NEXT(select)(count, readable, writable, exceptional, waiting);
  };
  const int ready = count_ready([=] {
    struct timeval none = {0, 0};
    return look(&none);
  });
  if (ready != 0) return ready;
  if (limit == nullptr) return look(nullptr);
  seam::advance(static_cast<double>(limit->tv_sec) + static_cast<double>(limit->tv_usec) / 1e6);
  *limit = {0, 0};
  return 0;
}

int unlink(const char* path) noexcept { return NEXT(unlink)(path); }

unsigned int sleep(unsigned int seconds) {
  const double end = state.now + seconds;
  if (seam::fails(seam::SLEEP)) return static_cast<unsigned int>(end - state.now);
  if (!clock_is_fake()) return REAL(sleep)(seconds);
  state.now = end;
  return 0;
}

// There are no timers in memory.
int timerfd_create(clockid_t clock, int flags) noexcept {
  return arms && state.in_memory ? -1 : REAL(timerfd_create)(clock, flags);
}

int timerfd_settime(int fd, int flags, const struct itimerspec* next, struct itimerspec* former) noexcept {
  state.timer_fd = fd;
  state.timer_end = state.now + static_cast<double>(next->it_value.tv_sec);
  return REAL(timerfd_settime)(fd, flags, next, former);
}

ssize_t read(int fd, void* to, size_t size) {
  if (seam::fails(seam::READ)) return failure();
  if (!clock_is_fake() || fd != state.timer_fd) return REAL(read)(fd, to, size);
  state.now = std::max(state.now, state.timer_end);
  return sizeof(std::uint64_t);
}

}  // extern "C"
