// The seam between the library and the system: this executable defines the system calls that the library
// makes, and passes them through unless a test counts, fails, hooks or re-clocks them. One thread arms it;
// calls of others pass.
#ifndef TESTS_SEAM_H
#define TESTS_SEAM_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace seam {

enum call_e {
  ACCESS,
  BIND,
  CLOCK_GETTIME,
  CLOSE,
  CONNECT,
  EPOLL_CTL,
  FCNTL,
  FLOCK,
  INOTIFY_ADD_WATCH,
  KILL,
  MKDIR,
  NEW,  // operator new, in programs that link allocations.cpp; noted only while it is to fail
  OPEN,
  PIDFD_OPEN,
  POLL,
  READ,
  RECVFROM,
  RECVMMSG,
  REMOVE,
  SELECT,
  SEND,
  SENDTO,
  SETSOCKOPT,
  SLEEP,
  SOCKET,
  CALLS
};

// Forgets faults, hooks, counts and lines, gives the real clock back and sets the trace level to 9.
void reset();

// Lets everything pass again, the real clock included; counts and lines stay.
void disarm();

// Arms this thread, too. The one that called reset makes no calls as long as it runs.
void enlist();

// The calls of one kind since reset: how many there were, and what they were given, separated by spaces: the
// limits of polls and of selects, the types of sockets, and paths; of directories only those that all may
// use.
int count(call_e call);
int count_all();
std::string given(call_e call);

// Lets `times` calls fail with `error`, after `skip` calls that pass. With the error 0 they return 0, having
// done nothing. A select or poll on the fake clock that is interrupted (EINTR) has waited 4 seconds, if its
// limit is longer.
void fail(call_e call, int error, int times = 1, int skip = 0);

// Whether no failure of this kind is still to come.
bool has_failed(call_e call);

// For the calls that are not in the seam's own source: notes one; whether it is to fail, with errno set.
bool fails(call_e call, std::string_view given = {});

// Runs before every call of this kind; may make calls itself, which run no hook. A second one replaces the
// first.
void before(call_e call, std::function<void()> hook);

// How many blocks operator new has given out.
long allocated_blocks();

// Has `open` open this file in place of any other; none for an empty path.
void open_instead(const std::string& path);

// The monotonic clock stands still at `seconds`, and sleep, select, poll and the reading of a timer's
// descriptor pass time on it instead of waiting. Where select or poll would wait, the idle hook runs first
// and may make a descriptor ready. A sleep that fails has slept as long as its hook made it.
void fake_clock(double seconds);
void advance(double seconds);
double now();
void when_idle(std::function<void()> hook);

// From now on sockets and their files are those of memory_sockets.h. For the fake clock.
void sockets_in_memory();

struct log_line {
  int priority;
  std::string text;  // as syslog would write it
};

// Lines written since reset, and expressions that logAssertFailed was called with, with its path and
// function; whether one contains `text`; how many do.
std::vector<log_line> lines();
bool logged(const std::string& text);
int times_logged(const std::string& text);
void clear_lines();

void trace_level(int level);

}  // namespace seam

#endif
