// A connection to the core, which shows over it what passes the bus (docs/introspection.md).
#ifndef KXCTL_MONITOR_CLIENT_H
#define KXCTL_MONITOR_CLIENT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "interruption.h"
#include "shell.h"

#include "unique_fd.h"

class monitor_client {
 public:
  // Connects, and waits for a first record until `answer_by`. The patterns tell the core what it may leave
  // out. Throws failure, with what to do, when that does not succeed.
  monitor_client(const std::string& components, const std::string& services, steady::time_point answer_by);

  // From now on it is the end, a quiet one, when nobody reads this pipe any more.
  void end_with_pipe(int fd) { m_pipe = fd; }

  // Takes a record; false when it wants no more.
  using take_t = std::function<bool(std::string_view record)>;

  // Hands records on until no more are wanted, the end of time, or a signal to stop; `caught_up` is called
  // whenever all have been handed on that were there; or the end of the core.
  enum end_e { ENOUGH, TIME_OVER, STOPPED, ENDED };
  end_e watch(const take_t& take, const std::function<void()>& caught_up, steady::time_point until);

  // Hands on what is still on its way, so that every loss is told. Waits a moment, no longer.
  void drain(const take_t& take);

 private:
  enum received_e { NOTHING_MORE, RECEIVED, UNWANTED, CORE_ENDED };

  void connect_by(steady::time_point answer_by);
  void greet(const std::string& components, const std::string& services);
  received_e receive(const take_t& take);
  bool hand_on(std::string_view record, const take_t& take);

  const interruption m_stop;
  unique_fd m_socket;
  int m_pipe = -1;
  std::vector<char> m_room;
  bool m_is_first = true;
};

#endif
