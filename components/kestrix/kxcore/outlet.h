// The way to one socket of a component: a sending socket of its own, connected, with a bounded queue behind
// it.
//
// A receiver holds only a few unread datagrams, and unread datagrams count against the sender's send buffer:
// with a socket for each destination, one that does not read fills only its own. Being connected, the socket
// reports POLLOUT when there is room again. Nothing here ever waits: what cannot be sent at once is queued in
// the order of each sender, and what does not fit into the queue is refused. A sender may take as much of a
// queue as it leaves free, and one message in any case, and the senders have their turns: however many flood
// a queue, the others find room in it and do not wait for the end of the flood. Nor can a user with many
// senders leave the others none: all of one user's may hold as much as the queue is meant for, and as much is
// kept for the rest. What a sender has room for is more than its own send buffer holds, so that a burst to a
// component that reads loses nothing.
#ifndef OUTLET_H
#define OUTLET_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "socket_file.h"
#include "unique_fd.h"

using datagram = std::vector<unsigned char>;

class outlet {
 public:
  // Of one user's senders, in bytes, with what the memory of each message costs beside its own; of all users'
  // together twice that.
  static constexpr std::size_t max_queued = std::size_t{256} * 1024;
  static constexpr std::size_t cost_beside_bytes = 128;

  enum result_e {
    SENT,    // handed to the receiver's socket
    QUEUED,  // waits its turn; call flush when the socket is writable
    FULL,    // refused: the queue is full, or the sender's share of it, or there is no memory
    GONE     // the receiver's socket does not exist any more
  };

  // Connects to the socket; connected() says whether that worked, errno why not.
  explicit outlet(const socket_file& to);

  bool connected() const { return m_socket.get() >= 0; }
  int fd() const { return m_socket.get(); }
  bool has_queue() const { return m_queued > 0; }

  // `sender` is the serial of a peer, 0 for the core itself, and `user` who runs it.
  result_e send(const void* bytes, std::size_t size, unsigned long sender, uid_t user);

  // Sends what is queued: SENT when nothing is left, QUEUED or GONE otherwise.
  using delivery = std::function<void(const datagram& message, unsigned long sender)>;
  result_e flush(const delivery& delivered = {});  // each message that was

  // Messages refused because the queue was full, since the last call.
  unsigned long take_lost();
  unsigned long lost() const { return m_lost; }

  // What has passed since the beginning, and what waits: in the queue, now and at most, and unread in the
  // receiver's socket.
  struct counters {
    std::uint64_t sent = 0;
    std::uint64_t sent_bytes = 0;
    std::uint64_t lost = 0;
    std::size_t highest_queue = 0;
  };
  const counters& total() const { return m_total; }
  std::size_t queued() const { return m_queued; }
  unsigned int unread() const;

  // Of one sender.
  struct waiting {
    unsigned long sender;
    uid_t user;
    std::deque<datagram> messages;
    std::size_t cost;
  };

  // Gives up what is queued.
  std::list<waiting> take_queue();

 private:
  result_e try_send(const void* bytes, std::size_t size);
  std::size_t cost_of(uid_t user) const;
  bool enqueue(std::list<waiting>::iterator own, unsigned long sender, uid_t user, const void* bytes,
               std::size_t size);

  unique_fd m_socket;
  std::list<waiting> m_turns;  // of the senders, none without messages; the front has the next
  std::size_t m_queued = 0;    // the cost of all
  unsigned long m_lost = 0;
  counters m_total;
};

#endif
