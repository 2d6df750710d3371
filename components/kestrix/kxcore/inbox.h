// Empties a socket of the core, some datagrams with each system call.
#ifndef INBOX_H
#define INBOX_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <array>
#include <string>

#include "KXmessage.h"

// Where a datagram comes from. The system vouches for process and user; the path is where the sender bound
// its socket, which in a file system of its own may be any.
struct sender {
  std::string path;  // empty when it has none
  pid_t pid;         // 0 when it is not known
  uid_t uid;
};

class inbox {
 public:
  static constexpr unsigned int batch_size = 16;

  inbox();
  inbox(const inbox&) = delete;
  inbox& operator=(const inbox&) = delete;

  // Has a socket say of each datagram which process of which user sent it. Of what lies in it already the
  // process is not known, and the user is that of the sender's socket file.
  static void ask_for_credentials(int fd);

  // Receives what is there, up to batch_size datagrams, without waiting; how many.
  unsigned int receive(int fd);

  // The datagrams of the last receive. A message holds the payload in place, as long as no other is received.
  KXmessage& message(unsigned int i) { return m_messages[i]; }
  bool is_malformed(unsigned int i) const;  // shorter than a header, or longer than a message

  const sender& sender_of(unsigned int i);  // reused by the next call

 private:
  union credentials {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(ucred))];
  };

  std::array<KXmessage, batch_size> m_messages;
  std::array<mmsghdr, batch_size> m_headers{};
  std::array<iovec, batch_size> m_parts{};
  std::array<sockaddr_un, batch_size> m_senders{};
  std::array<credentials, batch_size> m_credentials{};
  sender m_sender{};
};

#endif
