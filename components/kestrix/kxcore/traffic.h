// The monitors of the bus: programs that are shown what passes the core, each over a connection of its own.
//
// Nobody waits for a monitor, and nothing is kept for one: what does not fit into its connection is lost,
// and counted in the next record that does. A monitor can say nothing to the bus.
#ifndef TRAFFIC_H
#define TRAFFIC_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "KXmessage.h"
#include "record.h"
#include "unique_fd.h"

class traffic {
 public:
  static constexpr std::size_t max_monitors = 8;  // who has not greeted gives way to the next one

  // A monitor that sends more packets in such an interval is let go: each costs the bus as much as a message.
  static constexpr unsigned int max_packets = 64;
  static constexpr unsigned int packets_interval_ms = 100;

  // Why there can be no monitors, or an empty text. The socket's file is the user's alone, and of `group` too
  // unless that is -1. `directory`, which is created, belongs to the core. To be called again when the files
  // may have been removed.
  std::string open(const std::string& directory, gid_t group);

  // Removes the socket's file and the directory; who is connected stays so.
  void close();

  // Readable when serve has something to do; -1 when not open.
  int fd() const { return m_epoll.get(); }

  // Lets monitors in, and those that have ended go. `state` is to show a new one the state of the bus.
  using show_t = std::function<void(record_event_e event, const KXmessage& rows)>;
  void serve(const std::function<void(const show_t& show)>& state);

  bool is_watched() const { return m_is_watched; }

  // What is served from now on: when it was sent, 0 when that is not known, and whether to the management
  // socket.
  struct arrival {
    std::uint64_t sent_ns = 0;
    std::uint8_t flags = 0;
  };
  void arrived(const arrival& what) { m_arrival = what; }
  const arrival& last_arrival() const { return m_arrival; }

  // Shows a record to the monitors that want it. Numbers and losses are filled in here, and the times; the
  // time only when it is 0.
  void show(const record& about, const void* body, std::size_t size);

 private:
  struct monitor {
    unique_fd socket;
    bool is_greeted = false;
    std::string components{};  // patterns
    std::string services{};
    std::uint32_t sequence = 0;
    std::uint32_t lost = 0;
    std::uint64_t interval = 0;  // the number of the present one
    unsigned int packets = 0;    // that it has sent in it
  };

  void admit();
  void forget_silent();
  bool listen(monitor& to, const std::function<void(const show_t& show)>& state);
  static bool says_too_much(monitor& by);
  std::string greet(monitor& added, const KXmessage& hello);
  static bool wants(const monitor& of, const record& about);
  static void send(monitor& to, record about, const void* body, std::size_t size);

  std::string m_directory;
  unique_fd m_listener;
  unique_fd m_epoll;
  std::list<monitor> m_monitors;
  bool m_is_watched = false;  // by one that is greeted
  arrival m_arrival;
};

#endif
