#include "traffic.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "clock.h"
#include "payload.h"
#include "socket_address.h"

namespace {

constexpr int room = 1 << 20;  // bytes that a connection is to hold, where the system permits it
constexpr char socket_name[] = "/monitor";

std::string failure(const char* what) { return std::string(what) + ": " + strerror(errno); }

bool is_own_directory(const std::string& path) {
  struct stat file = {};
  return lstat(path.c_str(), &file) == 0 && S_ISDIR(file.st_mode) && file.st_uid == geteuid() &&
         (file.st_mode & 022) == 0;
}

void make_room(int fd) {
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0)
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
}

bool matches(const std::string& pattern, std::string_view text) {
  char name[256] = {};
  text.copy(name, sizeof name - 1);
  return pattern.empty() || fnmatch(pattern.c_str(), name, 0) == 0;
}

}  // namespace

std::string traffic::open(const std::string& directory, gid_t group) {
  mkdir(directory.c_str(), 0711);
  if (!is_own_directory(directory))
    return directory + " is not a directory that only kxcore can write to: remove it";
  m_directory = directory;
  const std::string path = directory + socket_name;
  unlink(path.c_str());
  unique_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  fchmod(listener.get(), 0600);  // the file gets the mode of the socket
  const sockaddr_un address = socket_address(path);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), max_monitors) != 0)
    return failure("cannot make their socket");
  const bool is_shared = group != static_cast<gid_t>(-1);
  if (is_shared &&
      (chown(path.c_str(), static_cast<uid_t>(-1), group) != 0 || chmod(path.c_str(), 0660) != 0))
    return failure("cannot give their socket to the group");
  if (m_epoll.get() < 0) m_epoll = unique_fd(epoll_create1(EPOLL_CLOEXEC));
  epoll_event entry = {};
  entry.events = EPOLLIN;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, listener.get(), &entry) != 0)
    return failure("cannot wait for them");
  m_listener = std::move(listener);
  return {};
}

void traffic::close() {
  if (m_directory.empty() || !is_own_directory(m_directory)) return;
  unlink((m_directory + socket_name).c_str());
  rmdir(m_directory.c_str());
}

void traffic::serve(const std::function<void(const show_t& show)>& state) {
  admit();
  for (auto each = m_monitors.begin(); each != m_monitors.end();) {
    each = listen(*each, state) ? std::next(each) : m_monitors.erase(each);
  }
  m_is_watched =
      std::any_of(m_monitors.begin(), m_monitors.end(), [](const monitor& each) { return each.is_greeted; });
}

void traffic::admit() {
  for (;;) {
    unique_fd socket(accept4(m_listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.get() < 0) return;
    epoll_event entry = {};
    entry.events = EPOLLIN;
    if (m_monitors.size() == max_monitors) forget_silent();
    if (m_monitors.size() == max_monitors ||
        epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, socket.get(), &entry) != 0)
      continue;
    make_room(socket.get());
    try {
      m_monitors.push_back({std::move(socket)});
    } catch (const std::bad_alloc&) {  // then not
    }
  }
}

void traffic::forget_silent() {
  const auto silent = std::find_if(m_monitors.begin(), m_monitors.end(),
                                   [](const monitor& each) { return !each.is_greeted; });
  if (silent != m_monitors.end()) m_monitors.erase(silent);
}

bool traffic::says_too_much(monitor& by) {
  const std::uint64_t interval = now_ns(CLOCK_MONOTONIC) / (packets_interval_ms * 1'000'000ULL);
  if (interval != by.interval) by.packets = 0;
  by.interval = interval;
  return ++by.packets > max_packets;
}

// Takes what a monitor says; false when it has ended, or says what it should not.
bool traffic::listen(monitor& to, const std::function<void(const show_t& show)>& state) {
  for (int turns = 0; turns < 16; ++turns) {
    KXmessage said;
    const ssize_t size = recv(to.socket.get(), said.data + said.offset, 1024, MSG_DONTWAIT);
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    if (size == 0 || says_too_much(to)) return false;
    said.incr_size(static_cast<int>(size));
    if (to.is_greeted) {
      send(to, {RECORD_MARK}, nullptr, 0);
      continue;
    }
    const std::string refusal = greet(to, said);
    if (!refusal.empty()) {
      record no = {RECORD_REFUSED};
      no.reason = refusal;
      send(to, no, nullptr, 0);
      return false;
    }
    state([&to](record_event_e event, const KXmessage& rows) {
      send(to, {event}, rows.m_header, static_cast<std::size_t>(rows.datagram_size()));
    });
  }
  return true;
}

std::string traffic::greet(monitor& added, const KXmessage& hello) {
  unsigned int version = 0;
  payload values(hello);
  if (!values.take(version)) return "the greeting does not parse";
  if (version != record_version) return "this kxcore speaks version " + std::to_string(record_version);
  if (!values.take(added.components) || !values.take(added.services)) return "the greeting does not parse";
  added.is_greeted = true;
  return {};
}

void traffic::show(const record& about, const void* body, std::size_t size) {
  for (monitor& each : m_monitors)
    if (each.is_greeted && wants(each, about)) send(each, about, body, size);
}

bool traffic::wants(const monitor& of, const record& about) {
  return (matches(of.components, about.sender) || matches(of.components, about.receiver)) &&
         matches(of.services, about.service);
}

void traffic::send(monitor& to, record about, const void* body, std::size_t size) {
  about.sequence = to.sequence;
  about.lost = to.lost;
  const std::uint64_t now = now_ns(CLOCK_REALTIME);
  if (about.time_ns == 0) about.time_ns = now;
  about.monotonic_ns = now_ns(CLOCK_MONOTONIC) - (now - about.time_ns);
  unsigned char header[record_max_header];
  iovec parts[] = {{header, write_record_header(about, header)}, {const_cast<void*>(body), size}};
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = size > 0 ? 2 : 1;
  if (sendmsg(to.socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    ++to.lost;
    return;
  }
  ++to.sequence;
  to.lost = 0;
}
