#include "memory_sockets.h"

#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

namespace {

constexpr int first_descriptor = 512;   // the process has none from here on, and select takes it
constexpr std::size_t max_queued = 11;  // as on Linux

struct datagram {
  sockaddr_un sender;
  std::size_t size;
  unsigned char bytes[4096];
};

// Its file may be there after it is closed, and the other way round.
struct memory_socket {
  bool open;
  bool has_file;
  sockaddr_un address;
  std::string_view path;                   // in it
  std::array<datagram, max_queued> queue;  // a ring
  std::size_t first;
  std::size_t queued;

  bool is_free() const { return !open && !has_file; }
};

std::array<memory_socket, 16> sockets;

int refuse(int error) {
  errno = error;
  return -1;
}

// What was asked for, or null and errno.
memory_socket* found(memory_socket* socket, int error) {
  if (socket != sockets.end()) return socket;
  errno = error;
  return nullptr;
}

memory_socket* open_at(int fd) {
  const auto index = static_cast<std::size_t>(fd) - first_descriptor;
  const bool is_open = index < sockets.size() && sockets[index].open;
  return found(is_open ? &sockets[index] : sockets.end(), EBADF);
}

memory_socket* bound_to(std::string_view path) {
  return found(std::find_if(sockets.begin(), sockets.end(),
                            [path](const memory_socket& each) { return each.has_file && path == each.path; }),
               ENOENT);
}

std::string_view path_of(const sockaddr* address, socklen_t length) {
  const char* const path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
  return {path, strnlen(path, length - offsetof(sockaddr_un, sun_path))};
}

// What a wait returns.
int ready(int count, bool without_limit) {
  if (count == 0 && without_limit) {
    std::fputs("a wait without end\n", stderr);
    std::abort();
  }
  return count;
}

}  // namespace

namespace memory_sockets {

void clear() {
  for (memory_socket& each : sockets)
    each.open = each.has_file = false;
}

bool none_left() { return std::all_of(sockets.begin(), sockets.end(), std::mem_fn(&memory_socket::is_free)); }

int access(const char* path, int) { return bound_to(path) != nullptr ? 0 : -1; }

int bind(int fd, const sockaddr* address, socklen_t length) {
  memory_socket* const bound = open_at(fd);
  if (bound == nullptr) return -1;
  if (bound_to(path_of(address, length)) != nullptr) return refuse(EADDRINUSE);
  std::memcpy(&bound->address, address, length);
  bound->path = path_of(reinterpret_cast<const sockaddr*>(&bound->address), length);
  bound->has_file = true;
  return 0;
}

int close(int fd) {
  memory_socket* const closed = open_at(fd);
  if (closed == nullptr) return -1;
  closed->open = false;
  return 0;
}

int fcntl(int fd, int, ...) { return open_at(fd) != nullptr ? 0 : -1; }
int mkdir(const char*, mode_t) { return refuse(EEXIST); }
int open(const char*, int, ...) { return refuse(ENOENT); }

int poll(pollfd* entries, nfds_t count, int timeout) {
  for (pollfd* entry = entries; entry != entries + count; ++entry) {
    const memory_socket* const polled = open_at(entry->fd);
    entry->revents = polled == nullptr ? POLLNVAL : polled->queued > 0 ? POLLIN : 0;
  }
  const auto found =
      std::count_if(entries, entries + count, [](const pollfd& each) { return each.revents != 0; });
  return ready(static_cast<int>(found), timeout < 0);
}

ssize_t recvfrom(int fd, void* to, std::size_t size, int, sockaddr* from, socklen_t* length) {
  memory_socket* const receiver = open_at(fd);
  if (receiver == nullptr) return -1;
  if (receiver->queued == 0) return refuse(EAGAIN);
  const datagram& next = receiver->queue[receiver->first];
  receiver->first = (receiver->first + 1) % max_queued;
  --receiver->queued;
  const std::size_t received = std::min(size, next.size);
  std::memcpy(to, next.bytes, received);
  std::memcpy(from, &next.sender, std::min(std::size_t{*length}, sizeof next.sender));
  *length = sizeof next.sender;
  return static_cast<ssize_t>(received);
}

int remove(const char* path) {
  memory_socket* const removed = bound_to(path);
  if (removed == nullptr) return -1;
  removed->has_file = false;
  return 0;
}

int select(int count, fd_set* readable, fd_set*, fd_set*, timeval* limit) {
  int found = 0;
  for (int fd = first_descriptor; fd < count; ++fd) {
    if (!FD_ISSET(fd, readable)) continue;
    const memory_socket* const selected = open_at(fd);
    if (selected == nullptr) return -1;
    if (selected->queued == 0) FD_CLR(fd, readable);
    found += selected->queued > 0 ? 1 : 0;
  }
  return ready(found, limit == nullptr);
}

ssize_t sendto(int fd, const void* from, std::size_t size, int, const sockaddr* to, socklen_t length) {
  const memory_socket* const sender = open_at(fd);
  memory_socket* const receiver = sender == nullptr ? nullptr : bound_to(path_of(to, length));
  if (receiver == nullptr) return -1;
  if (!receiver->open) return refuse(ECONNREFUSED);
  if (receiver->queued == max_queued) return refuse(EAGAIN);
  if (size > sizeof datagram::bytes) return refuse(EMSGSIZE);
  datagram& last = receiver->queue[(receiver->first + receiver->queued++) % max_queued];
  last.sender = sender->address;
  last.size = size;
  std::copy_n(static_cast<const unsigned char*>(from), size, last.bytes);
  return static_cast<ssize_t>(size);
}

int setsockopt(int fd, int, int, const void*, socklen_t) { return open_at(fd) != nullptr ? 0 : -1; }

int socket(int, int, int) {
  memory_socket* const made =
      std::find_if(sockets.begin(), sockets.end(), std::mem_fn(&memory_socket::is_free));
  if (made == sockets.end()) return refuse(EMFILE);
  made->open = true;
  made->address = {AF_UNIX, {}};
  made->first = made->queued = 0;
  return first_descriptor + static_cast<int>(made - sockets.begin());
}

int unlink(const char* path) { return remove(path); }

}  // namespace memory_sockets
