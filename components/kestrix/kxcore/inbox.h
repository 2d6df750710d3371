// Empties a socket of the core, some datagrams with each system call.
#ifndef INBOX_H
#define INBOX_H

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <string>

#include "KXmessage.h"

class inbox {
 public:
  // More than a receiver holds unread by default, so that one call empties the socket.
  static constexpr unsigned int batch_size = 16;

  inbox();
  inbox(const inbox&) = delete;
  inbox& operator=(const inbox&) = delete;

  // Has the kernel say with each datagram which process sent it.
  static void ask_for_sender_pid(int fd);

  // Receives what is there, up to batch_size datagrams, without waiting; how many.
  unsigned int receive(int fd);

  // The datagrams of the last receive. A message holds the payload in place, as long as no other is received.
  KXmessage& message(unsigned int i) { return m_messages[i]; }
  int length(unsigned int i) const { return static_cast<int>(m_headers[i].msg_len); }
  bool truncated(unsigned int i) const { return (m_headers[i].msg_hdr.msg_flags & MSG_TRUNC) != 0; }
  pid_t sender_pid(unsigned int i) const;

  // The sender's path, empty when it has none; the string is reused by the next call.
  const std::string& sender(unsigned int i);

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
  std::string m_sender;
};

#endif
