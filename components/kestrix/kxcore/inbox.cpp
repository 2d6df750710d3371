#include "inbox.h"

#include <cstring>

#include "clock.h"
#include "datagram.h"
#include "socket_address.h"

inbox::inbox() {
  m_sender.path.reserve(max_socket_path + 1);  // no sender takes memory later
  for (unsigned int i = 0; i < batch_size; ++i) {
    m_parts[i] = {m_messages[i].m_header, buffer_t::capacity};
    m_headers[i].msg_hdr.msg_name = &m_senders[i];
    m_headers[i].msg_hdr.msg_iov = &m_parts[i];
    m_headers[i].msg_hdr.msg_iovlen = 1;
    m_headers[i].msg_hdr.msg_control = &m_details[i];
  }
}

void inbox::ask_for_credentials(int fd) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
}

void inbox::ask_for_times(int fd, bool is_wanted) {
  const int on = is_wanted ? 1 : 0;
  m_has_times = setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0 && is_wanted;
}

unsigned int inbox::receive(int fd) {
  // Room for what is asked for and no more: nobody can pass the core a descriptor.
  const std::size_t room = m_has_times ? sizeof(details) : CMSG_SPACE(sizeof(ucred));
  for (mmsghdr& header : m_headers) {
    header.msg_hdr.msg_namelen = sizeof(sockaddr_un);
    header.msg_hdr.msg_controllen = room;
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
  ucred process = {0, sender::overflow_uid, 0};
  timespec time = {};
  msghdr& header = m_headers[i].msg_hdr;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS)
      std::memcpy(&process, CMSG_DATA(part), sizeof process);
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS)
      std::memcpy(&time, CMSG_DATA(part), sizeof time);
  }
  m_sender.pid = process.pid;
  m_sender.uid = process.uid;
  m_sender.sent_ns = in_ns(time);
  return m_sender;
}
