// A descriptor that is closed with its owner.
#ifndef UNIQUE_FD_H
#define UNIQUE_FD_H

#include <unistd.h>

#include <utility>

class unique_fd {
 public:
  explicit unique_fd(int fd = -1) : m_fd(fd) {}
  ~unique_fd() {
    if (m_fd >= 0) close(m_fd);
  }
  unique_fd(unique_fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  int get() const { return m_fd; }

 private:
  int m_fd;
};

#endif
