// Sockets that hold more unread datagrams than usual.
#ifndef LONGER_QUEUES_H
#define LONGER_QUEUES_H

#include <string>

#include "unique_fd.h"

// A socket of the core holds this many unread datagrams and one: so many that before it is full the send
// buffers of some sixty senders are. More only where the system has been told to.
constexpr int socket_queue = 16384;

// While this lives, the sockets that its thread creates get such a queue. Its length is taken from the
// network namespace in which a socket is created, so the thread is in a new one meanwhile; sockets with a
// path are reached from everywhere. No setting of the system is changed.
class longer_queues {
 public:
  longer_queues();
  ~longer_queues();
  longer_queues(const longer_queues&) = delete;
  longer_queues& operator=(const longer_queues&) = delete;

  // Why the queues are not longer, where the system does not permit it, else empty.
  const std::string& refusal() const { return m_refusal; }

 private:
  std::string enter();

  unique_fd m_before;  // the namespace to go back to
  std::string m_refusal;
};

#endif
