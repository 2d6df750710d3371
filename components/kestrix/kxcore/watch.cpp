#include "watch.h"

#include <sys/epoll.h>

#include <cerrno>
#include <system_error>

watch::watch() : m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
  if (fd() < 0) throw std::system_error(errno, std::generic_category(), "cannot create an epoll descriptor");
}

bool watch::add(peer& owner, int fd, kind_e kind) {
  epoll_event entry = {};
  entry.events = kind == PROCESS_ENDED ? EPOLLIN : EPOLLOUT;
  entry.data.ptr = &owner;
  return epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &entry) == 0;
}

void watch::remove(int fd) { epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, fd, nullptr); }

unsigned int watch::look(event (&events)[max_events]) const {
  epoll_event ready[max_events];
  const int count = epoll_wait(m_epoll.get(), ready, max_events, 0);
  for (int i = 0; i < count; ++i) {
    const bool ended = (ready[i].events & EPOLLIN) != 0;
    events[i] = {static_cast<peer*>(ready[i].data.ptr), ended ? PROCESS_ENDED : ROOM};
  }
  return count < 0 ? 0 : static_cast<unsigned int>(count);
}
