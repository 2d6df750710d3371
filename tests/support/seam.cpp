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

struct armed_call {
  int count = 0;
  int error = 0;
  int failures = 0;
  int skip = 0;
  std::function<void()> hook;
};

// Lines are taken from signal handlers too, so their storage is fixed.
struct line_record {
  std::atomic<bool> complete;
  int priority;
  char text[1200];
};

constexpr std::size_t max_lines = 4096;

std::array<armed_call, seam::CALLS> armed;
std::vector<seam::call_e> made;
seam::arguments given_last;
std::string opened_instead;
double sleep_cut_after = 0;
int timer_fd = -1;  // armed on the fake clock, for timer_end
double timer_end = 0;
int failing_allocation = 0;  // how many there are before it, and itself
std::array<line_record, max_lines> records;
std::atomic<std::size_t> record_count{0};
std::vector<seam::failed_assertion> assertions;
std::function<void()> idle;
double fake_now = -1;
bool in_memory = false;                  // the sockets
std::atomic<bool> records_lines{false};  // from the first reset on
thread_local bool arms = false;          // whether this thread is the one that armed the seam
thread_local bool inside = false;        // whether it runs a hook

constexpr bool is_fake(double clock) { return clock >= 0; }

// The next definition of a function: the C library's, or a sanitizer's.
template <typename Function>
Function real(const char* name, Function) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) real(#name, &::name)

// The same of a call on sockets, which may be in memory.
#define NEXT(name) (arms && in_memory ? &memory_sockets::name : REAL(name))

void run(std::function<void()> hook) {
  if (!hook || inside) return;
  inside = true;
  hook();
  inside = false;
}

}  // namespace

// It runs the call's hook, too.
bool seam::fails(call_e call) {
  if (!arms || inside) return false;
  armed_call& entry = armed[call];
  ++entry.count;
  made.push_back(call);
  run(entry.hook);
  if (entry.failures == 0 || entry.skip-- > 0) return false;
  --entry.failures;
  entry.skip = 0;
  errno = entry.error;
  return true;
}

namespace {

// What a call that fails returns.
int failure() { return errno == 0 ? 0 : -1; }

// The milliseconds that an interrupted call has waited, of those it was to.
int waited(long long limit_ms) {
  constexpr int part_ms = 4000;
  if (!is_fake(fake_now) || errno != EINTR || limit_ms <= part_ms) return 0;
  seam::advance(part_ms / 1000);
  return part_ms;
}

bool clock_is_fake() { return arms && is_fake(fake_now); }

template <typename Look>
int count_ready(const Look& look) {
  int ready = look();
  if (ready != 0) return ready;
  run(idle);
  return look();
}

}  // namespace

namespace seam {

void reset() {
  arms = true;
  inside = false;
  records_lines = true;
  for (armed_call& entry : armed)
    entry = {};
  made.clear();
  made.reserve(1 << 16);  // so that notes allocate nothing
  sleep_cut_after = 0;
  timer_fd = -1;
  given_last.poll_timeouts.clear();
  given_last.poll_timeouts.reserve(1 << 12);
  given_last.opened.reserve(64);
  given_last.directories.clear();
  given_last.directories.reserve(1024);
  assertions.reserve(1 << 10);
  failing_allocation = 0;
  assertions.clear();
  idle = nullptr;
  in_memory = false;
  fake_now = -1;
  opened_instead.clear();
  clear_lines();
  trace_level(9);
}

void disarm() { arms = false; }
void enlist() { arms = true; }
void cut_sleep(double after) { sleep_cut_after = after; }

const std::vector<call_e>& calls() { return made; }
int count(call_e call) { return armed[call].count; }
const arguments& given() { return given_last; }
void open_instead(const std::string& path) { opened_instead = path; }

void fail(call_e call, int error, int times, int skip) {
  armed[call].error = error;
  armed[call].failures = times;
  armed[call].skip = skip;
}

void fail_allocation(int n) { failing_allocation = n; }
bool allocation_failed() { return failing_allocation == 0; }
bool allocation_fails() { return arms && !inside && failing_allocation > 0 && --failing_allocation == 0; }

void before(call_e call, std::function<void()> hook) { armed[call].hook = std::move(hook); }
void fake_clock(double seconds) { fake_now = seconds; }
void advance(double seconds) { fake_now += seconds; }
double now() { return fake_now; }

void sockets_in_memory() {
  memory_sockets::clear();
  in_memory = true;
}

void when_idle(std::function<void()> hook) { idle = std::move(hook); }

std::vector<log_line> lines() {
  std::vector<log_line> result;
  for (std::size_t i = 0; i < std::min(record_count.load(), max_lines); ++i) {
    if (records[i].complete) result.push_back({records[i].priority, records[i].text});
  }
  return result;
}

int times_logged(const std::string& text) {
  int times = 0;
  for (const log_line& line : lines())
    times += line.text.find(text) != std::string::npos ? 1 : 0;
  return times;
}

bool logged(const std::string& text) { return times_logged(text) > 0; }

void clear_lines() {
  for (std::size_t i = 0; i < std::min(record_count.load(), max_lines); ++i)
    records[i].complete = false;
  record_count = 0;
}

void trace_level(int level) { g_traceObject->level = level; }

const std::vector<failed_assertion>& failed_assertions() { return assertions; }

}  // namespace seam

extern "C" {

void logAssertFailed(const char* expression, const char* path, int /*line*/, const char* function) {
  assertions.push_back({expression, path, function});
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::size_t index = records_lines ? record_count.fetch_add(1) : max_lines;
  if (!records_lines) {
    vsyslog(priority, format, arguments);
  } else if (index < max_lines) {
    vsnprintf(records[index].text, sizeof records[index].text, format, arguments);
    records[index].priority = priority;
    records[index].complete = true;
  }
  va_end(arguments);
}

// A call that only ever passes or fails.
#define PASS_THROUGH(result, name, call, parameters, arguments, exceptions) \
  result name parameters exceptions { return fails(seam::call) ? failure() : NEXT(name) arguments; }

PASS_THROUGH(int, access, ACCESS, (const char* path, int mode), (path, mode), noexcept)
PASS_THROUGH(int, bind, BIND, (int fd, const struct sockaddr* address, socklen_t length),
             (fd, address, length), noexcept)
PASS_THROUGH(ssize_t, recvfrom, RECVFROM,
             (int fd, void* to, size_t size, int flags, struct sockaddr* from, socklen_t* length),
             (fd, to, size, flags, from, length), )
PASS_THROUGH(int, remove, REMOVE, (const char* path), (path), noexcept)
PASS_THROUGH(ssize_t, sendto, SENDTO,
             (int fd, const void* from, size_t size, int flags, const struct sockaddr* to, socklen_t length),
             (fd, from, size, flags, to, length), )
PASS_THROUGH(int, setsockopt, SETSOCKOPT,
             (int fd, int level, int option, const void* value, socklen_t length),
             (fd, level, option, value, length), noexcept)

int mkdir(const char* path, mode_t mode) noexcept {
  if (fails(seam::MKDIR)) return -1;
  if (arms && !in_memory) given_last.directories.append(path).append(mode == 0777 ? ":0777 " : ":? ");
  return NEXT(mkdir)(path, mode);
}

int socket(int domain, int type, int protocol) noexcept {
  if (fails(seam::SOCKET)) return -1;
  if (arms) given_last.socket_type = type;
  return NEXT(socket)(domain, type, protocol);
}

// A descriptor is closed, whatever close reports.
int close(int fd) {
  const bool failed = fails(seam::CLOSE);
  const int error = errno;
  const int result = NEXT(close)(fd);
  if (!failed) return result;
  errno = error;
  return -1;
}

int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC) return REAL(clock_gettime)(clock, time);
  if (fails(seam::CLOCK_GETTIME)) return -1;
  if (!clock_is_fake()) return REAL(clock_gettime)(clock, time);
  const auto microseconds = std::llround(fake_now * 1e6);
  time->tv_sec = static_cast<time_t>(microseconds / 1'000'000);
  time->tv_nsec = static_cast<long>(microseconds % 1'000'000 * 1000);
  return 0;
}

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (fails(seam::FCNTL)) return -1;
  return NEXT(fcntl)(fd, command, argument);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (fails(seam::OPEN)) return -1;
  if (arms) given_last.opened = path;
  return NEXT(open)(arms && !opened_instead.empty() ? opened_instead.c_str() : path, flags, mode);
}

int poll(struct pollfd* entries, nfds_t count, int timeout) {
  if (arms && !inside) {
    given_last.polled = entries;
    given_last.polled_count = count;
    given_last.poll_timeouts.push_back(timeout);
  }
  if (fails(seam::POLL)) return waited(timeout), -1;
  if (!clock_is_fake()) return NEXT(poll)(entries, count, timeout);
  const int ready = count_ready([=] { return NEXT(poll)(entries, count, 0); });
  if (ready != 0) return ready;
  if (timeout < 0) return NEXT(poll)(entries, count, timeout);
  seam::advance(timeout / 1000.0);
  return 0;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, struct timeval* limit) {
  if (fails(seam::SELECT)) {
    if (limit != nullptr) limit->tv_sec -= waited(1000ll * limit->tv_sec) / 1000;
    return -1;
  }
  if (!clock_is_fake()) return NEXT(select)(count, readable, writable, exceptional, limit);
  const fd_set asked = *readable;
  const int ready = count_ready([=] {
    *readable = asked;
    struct timeval none = {0, 0};
    return NEXT(select)(count, readable, writable, exceptional, &none);
  });
  if (ready != 0) return ready;
  if (limit == nullptr) {
    *readable = asked;
    return NEXT(select)(count, readable, writable, exceptional, nullptr);
  }
  seam::advance(static_cast<double>(limit->tv_sec) + static_cast<double>(limit->tv_usec) / 1e6);
  *limit = {0, 0};
  return 0;
}

int unlink(const char* path) noexcept { return NEXT(unlink)(path); }

unsigned int sleep(unsigned int seconds) {
  if (fails(seam::SLEEP)) return seconds;
  if (!clock_is_fake()) return REAL(sleep)(seconds);
  const double cut_after = std::exchange(sleep_cut_after, 0);
  seam::advance(cut_after > 0 ? cut_after : seconds);
  if (cut_after <= 0) return 0;
  errno = EINTR;
  return static_cast<unsigned int>(seconds - cut_after);
}

// There are no timers in memory.
int timerfd_create(int clock, int flags) noexcept {
  if (arms) given_last.timer_flags = flags;
  return arms && in_memory ? -1 : REAL(timerfd_create)(clock, flags);
}

int timerfd_settime(int fd, int flags, const struct itimerspec* next, struct itimerspec* former) noexcept {
  if (clock_is_fake()) {
    timer_fd = fd;
    timer_end = fake_now + static_cast<double>(next->it_value.tv_sec);
  }
  return fd < 0 ? -1 : REAL(timerfd_settime)(fd, flags, next, former);
}

ssize_t read(int fd, void* to, size_t size) {
  if (fails(seam::READ)) return failure();
  if (!clock_is_fake() || fd != timer_fd) return REAL(read)(fd, to, size);
  fake_now = std::max(fake_now, timer_end);
  return sizeof(std::uint64_t);
}

}  // extern "C"
