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
  // More than a receiver holds unread by default, so that one call empties such a socket; the core's own hold
  // more where the system permits.
  static constexpr unsigned int batch_size = 16;

  // With `pids`, every datagram says which process sent it; the socket needs ask_for_sender_pid, once.
  explicit inbox(bool pids);
  inbox(const inbox&) = delete;
  inbox& operator=(const inbox&) = delete;

  static void ask_for_sender_pid(int fd);

  // Receives what is there, up to batch_size datagrams, without waiting; how many.
  unsigned int receive(int fd);

  // The datagrams of the last receive. A message holds the payload in place, as long as no other is received.
  KXmessage& message(unsigned int i) { return m_messages[i]; }
  bool is_malformed(unsigned int i) const;  // shorter than a header, or longer than a message
  pid_t sender_pid(unsigned int i) const;   // 0 when it is not known

  // The sender's path, empty when it has none; the string is reused by the next call.
  const std::string& sender(unsigned int i);

 private:
  union credentials {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(ucred))];
  };

  const bool m_pids;
  std::array<KXmessage, batch_size> m_messages;
  std::array<mmsghdr, batch_size> m_headers{};
  std::array<iovec, batch_size> m_parts{};
  std::array<sockaddr_un, batch_size> m_senders{};
  std::array<credentials, batch_size> m_credentials{};
  std::string m_sender;
};

#endif
