// Empties a socket of the core, some datagrams with each system call.
#ifndef INBOX_H
#define INBOX_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <time.h>

#include <array>
#include <cstdint>
#include <string>

#include "KXmessage.h"

// Where a datagram comes from. The system vouches for process and user; the path is where the sender bound
// its socket, which in a file system of its own may be any.
struct sender {
  static constexpr uid_t overflow_uid = 65534;

  std::string path;  // empty when it has none
  pid_t pid;         // 0 when the core cannot see it
  uid_t uid;
  std::uint64_t sent_ns = 0;  // since 1970, when it was sent; 0 when that is not asked for

  // False for what came in the moment between the socket's creation and ask_for_credentials (and for a
  // process of nobody's that the core cannot see).
  bool is_known() const { return pid != 0 || uid != overflow_uid; }
};

class inbox {
 public:
  static constexpr unsigned int batch_size = 16;

  inbox();
  inbox(const inbox&) = delete;
  inbox& operator=(const inbox&) = delete;

  // Has a socket say of each datagram from now on which process of which user sent it.
  static void ask_for_credentials(int fd);

  // And when it was sent, or not any more, of the socket that is received from.
  void ask_for_times(int fd, bool is_wanted);

  // Receives what is there, up to batch_size datagrams, without waiting; how many.
  unsigned int receive(int fd);

  // The datagrams of the last receive. A message holds the payload in place, as long as no other is received.
  KXmessage& message(unsigned int i) { return m_messages[i]; }
  bool is_malformed(unsigned int i) const;  // shorter than a header, or longer than a message

  const sender& sender_of(unsigned int i);  // reused by the next call

 private:
  // The time, when it is asked for, comes first.
  union details {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(ucred))];
  };

  std::array<KXmessage, batch_size> m_messages;
  std::array<mmsghdr, batch_size> m_headers{};
  std::array<iovec, batch_size> m_parts{};
  std::array<sockaddr_un, batch_size> m_senders{};
  std::array<details, batch_size> m_details{};
  sender m_sender{};
  bool m_has_times = false;
};

#endif
