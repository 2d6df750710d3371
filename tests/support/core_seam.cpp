// The system calls that only the core makes, as a part of the seam.
#include <dlfcn.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "seam.h"

#define REAL(name) reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

extern "C" {

#define PASS_THROUGH(result, name, call, parameters, arguments, exceptions) \
  result name parameters exceptions { return seam::fails(seam::call) ? -1 : REAL(name) arguments; }

PASS_THROUGH(int, connect, CONNECT, (int fd, const struct sockaddr* address, socklen_t length),
             (fd, address, length), )
PASS_THROUGH(int, epoll_ctl, EPOLL_CTL, (int epoll, int operation, int fd, struct epoll_event* event),
             (epoll, operation, fd, event), noexcept)
PASS_THROUGH(int, flock, FLOCK, (int fd, int operation), (fd, operation), noexcept)
PASS_THROUGH(int, inotify_add_watch, INOTIFY_ADD_WATCH, (int fd, const char* path, uint32_t events),
             (fd, path, events), noexcept)
PASS_THROUGH(int, kill, KILL, (pid_t process, int number), (process, number), noexcept)
PASS_THROUGH(int, recvmmsg, RECVMMSG,
             (int fd, struct mmsghdr* headers, unsigned int count, int flags, struct timespec* limit),
             (fd, headers, count, flags, limit), )
PASS_THROUGH(ssize_t, send, SEND, (int fd, const void* from, size_t size, int flags),
             (fd, from, size, flags), )

long syscall(long number, ...) noexcept {
  va_list arguments;
  va_start(arguments, number);
  long values[6];
  for (long& value : values)
    value = va_arg(arguments, long);
  va_end(arguments);
  if (number == SYS_pidfd_open && seam::fails(seam::PIDFD_OPEN)) return -1;
  return REAL(syscall)(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}
}
