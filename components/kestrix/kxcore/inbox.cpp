#include "inbox.h"

#include <sys/stat.h>

#include <cstring>

#include "datagram.h"
#include "socket_address.h"

namespace {

constexpr uid_t nobody = 65534;  // stands for a user that the system does not know

uid_t owner_of(const std::string& socket) {
  struct stat file = {};
  return lstat(socket.c_str(), &file) == 0 && S_ISSOCK(file.st_mode) ? file.st_uid : nobody;
}

}  // namespace

inbox::inbox() {
  for (unsigned int i = 0; i < batch_size; ++i) {
    m_parts[i] = {m_messages[i].m_header, buffer_t::capacity};
    m_headers[i].msg_hdr.msg_name = &m_senders[i];
    m_headers[i].msg_hdr.msg_iov = &m_parts[i];
    m_headers[i].msg_hdr.msg_iovlen = 1;
    // Room for the credentials and no more: nobody can pass the core a descriptor.
    m_headers[i].msg_hdr.msg_control = &m_credentials[i];
  }
}

void inbox::ask_for_credentials(int fd) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
}

unsigned int inbox::receive(int fd) {
  for (mmsghdr& header : m_headers) {
    header.msg_hdr.msg_namelen = sizeof(sockaddr_un);
    header.msg_hdr.msg_controllen = sizeof(credentials);
  }
  const int received = recvmmsg(fd, m_headers.data(), batch_size, MSG_DONTWAIT, nullptr);
  if (received <= 0) return 0;
  for (unsigned int i = 0; i < static_cast<unsigned int>(received); ++i) {
    take_datagram(m_messages[i], static_cast<int>(m_headers[i].msg_len));
  }
  return static_cast<unsigned int>(received);
}

bool inbox::is_malformed(unsigned int i) const {
  return m_headers[i].msg_len < header_size || (m_headers[i].msg_hdr.msg_flags & MSG_TRUNC) != 0;
}

const sender& inbox::sender_of(unsigned int i) {
  m_sender.path = sender_path(m_senders[i], m_headers[i].msg_hdr.msg_namelen).text;
  ucred process = {0, nobody, static_cast<gid_t>(-1)};
  msghdr& header = m_headers[i].msg_hdr;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS)
      std::memcpy(&process, CMSG_DATA(part), sizeof process);
  }
  if (process.pid == 0 && process.uid == nobody) process.uid = owner_of(m_sender.path);
  m_sender.pid = process.pid;
  m_sender.uid = process.uid;
  return m_sender;
}
