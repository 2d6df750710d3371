// Non-blocking datagram sockets in memory, and the files that they are bound to: what the seam puts in place
// of the system's where there is no time for system calls. Each function is the call of its name. None of
// them waits; what would wait without limit ends the process.
#ifndef TESTS_MEMORY_SOCKETS_H
#define TESTS_MEMORY_SOCKETS_H

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

namespace memory_sockets {

// Closes all descriptors and removes all files; whether there are none.
void clear();
bool none_left();

int access(const char* path, int mode);
int bind(int fd, const sockaddr* address, socklen_t length);
int close(int fd);
int fcntl(int fd, int command, ...);
int mkdir(const char* path, mode_t mode);
int open(const char* path, int flags, ...);
int poll(pollfd* entries, nfds_t count, int timeout);
ssize_t recvfrom(int fd, void* to, std::size_t size, int flags, sockaddr* from, socklen_t* length);
int remove(const char* path);
int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit);
ssize_t sendto(int fd, const void* from, std::size_t size, int flags, const sockaddr* to, socklen_t length);
int setsockopt(int fd, int level, int option, const void* value, socklen_t length);
int socket(int domain, int type, int protocol);
int unlink(const char* path);

}  // namespace memory_sockets

#endif
