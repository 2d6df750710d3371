// The way to one socket of a component: a sending socket of its own, connected, with a bounded queue behind
// it.
//
// A receiver holds only a few unread datagrams, and unread datagrams count against the sender's send buffer:
// with a socket for each destination, one that does not read fills only its own. Being connected, the socket
// reports POLLOUT when there is room again. Nothing here ever waits: what cannot be sent at once is queued in
// the order of each sender, and what does not fit into the queue is refused. A sender may take as many places
// of a queue as it leaves free, and one in any case, and the senders have their turns: however many flood a
// queue, the others find room in it and do not wait for the end of the flood.
#ifndef OUTLET_H
#define OUTLET_H

#include <sys/un.h>

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

class unique_fd {
 public:
  explicit unique_fd(int fd = -1) : m_fd(fd) {}
  ~unique_fd();
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

using datagram = std::vector<unsigned char>;

class outlet {
 public:
  static constexpr std::size_t max_queued = 256;

  enum result_e {
    SENT,    // handed to the receiver's socket
    QUEUED,  // waits its turn; call flush when the socket is writable
    FULL,    // refused: the queue is full, or the sender's share of it
    GONE     // the receiver's socket does not exist any more
  };

  // Connects to the socket at `path`; connected() says whether that worked, errno why not.
  explicit outlet(const std::string& path);

  bool connected() const { return m_connected; }
  int fd() const { return m_socket.get(); }
  bool has_queue() const { return m_queued > 0; }

  // `sender` is the serial of a peer, 0 for the core itself.
  result_e send(const void* bytes, std::size_t size, unsigned long sender);

  // Sends what is queued: SENT when nothing is left, QUEUED or GONE otherwise.
  result_e flush();

  // Messages refused because the queue was full, since the last call.
  unsigned long take_lost();
  unsigned long lost() const { return m_lost; }

  // Gives up what is queued.
  std::vector<datagram> take_queue();

 private:
  result_e try_send(const void* bytes, std::size_t size);

  unique_fd m_socket;
  bool m_connected;
  std::map<unsigned long, std::deque<datagram>> m_queues;  // by sender, none empty
  std::size_t m_queued = 0;                                // in all of them
  unsigned long m_last_served = 0;
  unsigned long m_lost = 0;
};

// The socket address of a path that fits into one.
sockaddr_un address_of(const std::string& path);

// A non-blocking datagram socket without a name, connected to the socket at `path`, or -1.
int connect_datagram(const std::string& path);

#endif
