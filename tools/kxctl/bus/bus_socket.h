// A datagram socket of a component, with its file.
#ifndef KXCTL_BUS_SOCKET_H
#define KXCTL_BUS_SOCKET_H

#include <string>

#include "KXmessage.h"
#include "unique_fd.h"

class bus_socket {
 public:
  // Binds; removes a file that a dead process has left. Throws failure.
  explicit bus_socket(const std::string& path);
  ~bus_socket();
  bus_socket(const bus_socket&) = delete;
  bus_socket& operator=(const bus_socket&) = delete;

  int fd() const { return m_fd.get(); }
  const std::string& path() const { return m_path; }

  // One attempt, without waiting: 0, or why not, as errno has it.
  int send(const std::string& path, const KXmessage& message) const;

  // The next message, and the process that has sent it, 0 when that is not known. What is shorter than a
  // header is passed over. False when there is none.
  bool receive(KXmessage& message, pid_t& sender) const;

 private:
  std::string m_path;
  unique_fd m_fd;
};

// 0 when a socket is bound at the path, else why not, as errno has it.
int probe_socket(const std::string& path);

#endif
