#include "strangers.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "KXcomponent.h"

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

strangers::strangers(reporter& report, std::string bus_directory)
    : m_report(report),
      m_bus_directory(std::move(bus_directory)),
      m_socket(open_datagram()),
      m_spare(dup(m_socket.get())) {
  if (m_socket.get() < 0) throw std::system_error(errno, std::generic_category(), "cannot create a socket");
}

bool strangers::is_on_bus(const std::string& path) const {
  if (path.rfind(m_bus_directory, 0) != 0) return false;
  for (const char* const detour : {"//", "/./", "/../"})
    if (path.find(detour) != std::string::npos) return false;
  return true;
}

void strangers::answer(const sender& to, const KXmessage& message) {
  if (!is_on_bus(to.path) || !may_answer()) return;
  m_spare = unique_fd();
  const socket_file file(to.path);
  if (file.exists() && (file.identity().owner == to.uid || !to.is_known())) send(file, message);
  m_spare = unique_fd(dup(m_socket.get()));
}

bool strangers::may_answer() {
  const unsigned int interval = get_currentTime() / answers_interval_ms;
  if (interval != m_interval) m_answers_left = max_answers;
  m_interval = interval;
  if (m_answers_left == 0) return false;
  --m_answers_left;
  return true;
}

void strangers::send(const socket_file& to, const KXmessage& message) {
  if (offer(to, message) || errno != EAGAIN || !has_much_unread()) return;
  unique_fd fresh(open_datagram());
  if (fresh.get() < 0) return;
  m_socket = std::move(fresh);
  offer(to, message);
}

// Unread answers count against the send buffer of the socket that sent them: when it is full, another one
// takes its place.
bool strangers::has_much_unread() const {
  int unread = 0;
  int limit = 0;
  socklen_t size = sizeof limit;
  return ioctl(m_socket.get(), SIOCOUTQ, &unread) == 0 &&
         getsockopt(m_socket.get(), SOL_SOCKET, SO_SNDBUF, &limit, &size) == 0 && unread > limit / 2;
}

bool strangers::offer(const socket_file& to, const KXmessage& message) const {
  const sockaddr_un address = to.address();
  return sendto(m_socket.get(), message.m_header, static_cast<std::size_t>(message.datagram_size()),
                MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                sizeof address) >= 0;
}

void strangers::drop(peer* from, const sender& origin, const char* reason, const KXmessage* message) {
  show(RECORD_REFUSED, from, origin, message, reason);
  m_report.dropped(tally_of(from), name_of(from, origin).c_str(), reason);
}

void strangers::show(record_event_e event, const peer* from, const sender& origin, const KXmessage* message,
                     std::string_view reason) {
  if (!m_report.monitors.is_watched()) return;
  const std::string name = name_of(from, origin);
  record about = {event};
  about.sender = from == nullptr ? std::string_view(name) : from->label;
  about.receiver = "kxcore";
  about.reason = reason;
  about.pid = origin.pid;
  about.sent_ns = m_report.monitors.last_arrival().sent_ns;
  about.flags = m_report.monitors.last_arrival().flags;
  if (message == nullptr) return m_report.monitors.show(about, nullptr, 0);
  m_report.monitors.show(about, message->m_header, static_cast<std::size_t>(message->datagram_size()));
}

std::string strangers::name_of(const peer* from, const sender& origin) {
  if (from != nullptr) return from->name;
  std::string path = origin.path;
  std::replace_if(path.begin(), path.end(), is_control, '?');
  return "[" + path + "]";
}
