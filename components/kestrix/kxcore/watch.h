// What the core waits for on behalf of its peers: the end of a process, and room in a socket that was full.
#ifndef WATCH_H
#define WATCH_H

#include "unique_fd.h"

struct peer;

class watch {
 public:
  enum kind_e { PROCESS_ENDED, ROOM };

  struct event {
    peer* owner;
    kind_e kind;
  };

  // Throws std::system_error.
  watch();

  // Readable while there is an event.
  int fd() const { return m_epoll.get(); }

  // Watches a descriptor of `owner` until it is removed or closed; false, with errno, where the system
  // refuses.
  bool add(peer& owner, int fd, kind_e kind);
  void remove(int fd);

  // Writes what has happened and is not over to `events`; how many there are, the rest comes with the next
  // call.
  static constexpr unsigned int max_events = 64;
  unsigned int look(event (&events)[max_events]) const;

 private:
  unique_fd m_epoll;
};

#endif
