// The seam between the library and the system: this executable defines the system calls that the library
// makes, and passes them through unless a test counts, fails, hooks or re-clocks them. One thread arms it;
// calls of others pass.
#ifndef TESTS_SEAM_H
#define TESTS_SEAM_H

#include <poll.h>

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
  MKDIR,
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

struct log_line {
  int priority;
  std::string text;  // as syslog would write it
};

// Forgets faults, hooks, counts and lines, gives the real clock back and sets the trace level to 9.
void reset();

// Lets everything pass again, the real clock included; counts and lines stay.
void disarm();

// The calls made since reset, in order, and how many there were of one kind.
const std::vector<call_e>& calls();
int count(call_e call);

// What a call was given last.
struct arguments {
  int socket_type;
  int timer_flags;
  const pollfd* polled;
  nfds_t polled_count;
  std::vector<int> poll_timeouts;  // of all polls
  std::string opened;
  std::string directories;  // all that were made, with their modes
};
const arguments& given();

// Lets `times` calls fail with `error`, after `skip` calls that pass. With the error 0 they return 0, having
// done nothing. A select or poll on the fake clock that is interrupted (EINTR) has waited 4 seconds, if its
// limit is longer.
void fail(call_e call, int error, int times = 1, int skip = 0);

// In programs that link allocations.cpp: lets the `n`-th operator new fail; whether it has; how many blocks
// there are.
void fail_allocation(int n);
bool allocation_failed();
long allocated_blocks();

// For operator new: counts an allocation; whether it is to fail.
bool allocation_fails();

// For the calls that are not in the seam's own source: notes one; whether it is to fail, with errno set.
bool fails(call_e call);

// Runs before every call of this kind; may make calls itself, which run no hook. A second one replaces the
// first.
void before(call_e call, std::function<void()> hook);

// Lets a signal cut the next sleep short, after so many seconds.
void cut_sleep(double after);

// Has `open` open this file in place of any other; none for an empty path.
void open_instead(const std::string& path);

// Arms this thread, too. The one that called reset makes no calls as long as it runs.
void enlist();

// The monotonic clock stands still at `seconds`, and sleep, select, poll and the reading of a timer's
// descriptor pass time on it instead of waiting. Where one of the last two would wait, the idle hook runs
// first and may make a descriptor ready.
void fake_clock(double seconds);
void advance(double seconds);
double now();
void when_idle(std::function<void()> hook);

// From now on sockets and their files are those of memory_sockets.h. For the fake clock.
void sockets_in_memory();

// Lines written since reset; whether one contains `text`; how many do.
std::vector<log_line> lines();
bool logged(const std::string& text);
int times_logged(const std::string& text);
void clear_lines();

void trace_level(int level);

// The expressions that logAssertFailed was called with, and where; literals of the library.
struct failed_assertion {
  std::string_view expression;
  std::string_view path;
  std::string_view function;
};
const std::vector<failed_assertion>& failed_assertions();

}  // namespace seam

#endif
