// The system calls of the core's rooms, on sockets and processes in memory. To be included once: it defines
// these calls for the whole program, and leaves to the system what is not of this network.
#ifndef TESTS_FUZZ_MEMORY_NETWORK_H
#define TESTS_FUZZ_MEMORY_NETWORK_H

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cstring>

#include "KXcomponent.h"
#include "feed.h"

namespace network {

constexpr int first_descriptor = 1 << 16;
constexpr std::size_t max_unread = 3;

std::bitset<1024> ended;  // the processes
unsigned int now = 0;     // ms

struct unread_datagram {
  std::size_t size;
  unsigned char bytes[2048];
};

// A component's socket, and the file at its path, which may be another's.
struct receiver {
  const char* path;
  uid_t owner = 0;
  ino_t inode = 0;
  unsigned int life = 0;  // another one each time that it is bound; 0: it is closed
  std::size_t received = 0;
  std::size_t taken = 0;
  unread_datagram unread[max_unread] = {};

  std::size_t count() const { return received - taken; }
  const unread_datagram& take() { return unread[taken++ % max_unread]; }

  void bind(uid_t by) {
    static unsigned int last_life = 0;
    owner = by;
    inode = life = ++last_life;
  }
  void close() {
    life = 0;
    taken = received;
  }
};

struct descriptor {
  bool is_open;
  pid_t pid;          // of a process
  receiver* peer;     // the one that a socket is connected to, or whose file this is
  unsigned int life;  // of the peer, when this was made
  epoll_event watched;

  bool reaches() const { return life != 0 && peer->life == life; }
  bool is_ready() const {
    if (pid != 0) return ended[static_cast<std::size_t>(pid)];
    return !reaches() || peer->count() < max_unread;
  }
};

receiver receivers[] = {{"/bus/a"}, {"/bus/a-d"}, {"/bus/b"}, {"/bus/b-d"}, {"/bus/s/a"}, {"/bus/s/a-d"}};
descriptor descriptors[32];

bool is_open(const descriptor& each) { return each.is_open; }

descriptor& at(int fd) {
  descriptor& found = descriptors[fd - first_descriptor];
  REQUIRE(found.is_open);
  return found;
}

// The descriptor that the address "/proc/self/fd/N" is of.
const descriptor& at(const sockaddr* address) {
  return at(std::atoi(std::strrchr(reinterpret_cast<const sockaddr_un*>(address)->sun_path, '/') + 1));
}

int open(pid_t pid = 0, receiver* peer = nullptr) {
  descriptor* const made = std::find_if_not(std::begin(descriptors), std::end(descriptors), is_open);
  REQUIRE(made != std::end(descriptors));
  *made = {true, pid, peer, peer == nullptr ? 0 : peer->life, {}};
  return first_descriptor + static_cast<int>(made - descriptors);
}

int refuse(int error) {
  errno = error;
  return -1;
}

ssize_t deliver(const descriptor& to, const void* bytes, std::size_t size) {
  if (!to.reaches()) return refuse(ECONNREFUSED);
  if (to.peer->count() == max_unread) return refuse(EAGAIN);
  unread_datagram& last = to.peer->unread[to.peer->received++ % max_unread];
  last.size = size;
  std::memcpy(last.bytes, bytes, size);
  return static_cast<ssize_t>(size);
}

}  // namespace network

unsigned int get_currentTime() { return network::now; }

extern "C" {

int socket(int, int, int) noexcept { return network::open(); }
int dup(int) noexcept { return network::open(); }
int epoll_create1(int) noexcept { return network::open(); }

// By their own names the compiler takes poll to write only to its entry, and the others to be other
// functions. The core makes one system call by its number.
long open_process(long, pid_t pid) __asm__("syscall");
long open_process(long, pid_t pid) { return network::open(pid); }
int open_file(const char* path, int flags, mode_t mode) __asm__("open");
int open_file(const char* path, int flags, mode_t mode) {
  for (network::receiver& each : network::receivers)
    if (std::strcmp(each.path, path) == 0) return network::open(0, &each);
  return openat(AT_FDCWD, path, flags, mode);
}

int fstat(int fd, struct stat* status) noexcept {
  if (fd < network::first_descriptor) return fstatat(fd, "", status, AT_EMPTY_PATH);
  status->st_mode = S_IFSOCK;
  status->st_uid = network::at(fd).peer->owner;
  status->st_ino = network::at(fd).peer->inode;
  return 0;
}

int connect(int fd, const sockaddr* address, socklen_t) {
  const network::descriptor& file = network::at(address);
  if (!file.reaches()) return network::refuse(ECONNREFUSED);
  network::at(fd).peer = file.peer;
  network::at(fd).life = file.life;
  return 0;
}

ssize_t send(int fd, const void* bytes, size_t size, int) {
  return network::deliver(network::at(fd), bytes, size);
}

ssize_t sendto(int, const void* bytes, size_t size, int, const sockaddr* address, socklen_t) {
  return network::deliver(network::at(address), bytes, size);
}

int close(int fd) {
  static const auto system_close = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  if (fd < network::first_descriptor) return system_close(fd);
  network::at(fd).is_open = false;
  return 0;
}

int epoll_ctl(int, int operation, int fd, epoll_event* event) noexcept {
  network::at(fd).watched = operation == EPOLL_CTL_ADD ? *event : epoll_event{};
  return 0;
}

int epoll_wait(int, epoll_event* events, int, int) {
  int count = 0;
  for (const network::descriptor& each : network::descriptors)
    if (each.is_open && each.watched.events != 0 && each.is_ready()) events[count++] = each.watched;
  return count;
}

int poll_one(pollfd* entry, nfds_t, int) __asm__("poll");
int poll_one(pollfd* entry, nfds_t, int) { return network::at(entry->fd).is_ready() ? 1 : 0; }

}  // extern "C"

#endif
