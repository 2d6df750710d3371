// The registered components, by the paths of their sockets, with what they were granted, and the way to them.
//
// Who is given up gets nothing any more, but stays until forget_gone, so that nothing that refers to it is
// stale meanwhile. Forgotten with it is all that it was granted; whoever waits for an answer of it gets an
// error in its place.
#ifndef ROSTER_H
#define ROSTER_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "directory.h"
#include "peer.h"
#include "reporter.h"
#include "watch.h"

class roster {
 public:
  // Throws std::system_error.
  explicit roster(reporter& report);

  directory& services() { return m_services; }

  // The component with this management or data socket, or null.
  peer* at_mgmt(const std::string& path) const;
  peer* at_data(const std::string& path) const;

  // The same, or null also when the sender is not its process.
  peer* find_mgmt(const sender& from) const { return if_process_of(at_mgmt(from.path), from); }
  peer* find_data(const sender& from) const { return if_process_of(at_data(from.path), from); }

  std::size_t size() const { return m_peers.size(); }
  template <typename Function>
  void for_each(Function each) const {
    for (const auto& entry : m_peers)
      each(*entry.second);
  }

  // All of them in the order of their management paths, from behind `after` on.
  using peer_map = std::map<std::string, std::unique_ptr<peer>>;
  peer_map::const_iterator behind(const std::string& after) const { return m_peers.upper_bound(after); }
  peer_map::const_iterator end() const { return m_peers.end(); }

  // Takes a component in whose paths nobody has; what fails for want of memory changes nothing.
  void add(std::unique_ptr<peer> added);

  // Sends a message over one of the ways to `to`. `from` is null for what the core itself says. What is lost
  // is counted and reported here.
  outlet::result_e send(peer& to, outlet& way, const KXmessage& message, const peer* from);

  // Shows monitors a message of a component, or of the core (null), and what becomes of it.
  void show(record_event_e event, const peer* from, std::string_view receiver, const KXmessage& message,
            std::string_view reason = {}, std::uint64_t time_ns = 0);

  // Answers a request with an error in place of whom it was sent to. It is not open any more.
  void fail(peer& requester, const open_request& request, const char* reason);

  // Answers in the same way all open requests to a siid that its holder has given back.
  void fail_all_to(std::uint32_t siid, const char* reason);

  void give_up(peer& gone, const char* reason);
  void give_up_unreachable();

  // Takes back at once what a component that is given up was granted.
  void release(peer& gone);

  // Whether the component's management socket is closed, whatever stands at its path. A process that ended
  // has none; one that goes on as a child of the one that registered has.
  bool is_unreachable(const peer& of) const;

  // Whether nobody holds the socket of this file open.
  bool is_closed(const socket_file& file) const;

  // Forgets who was given up; how many they were.
  unsigned int forget_gone();

  // Readable when there is something to serve. serve sends what has waited for room, and returns whether
  // processes have ended: the components of these are given up by end_processes, when what they sent before
  // is served. With `held` it leaves the ends of processes to a later call.
  int fd() const { return m_watch.fd(); }
  bool serve(bool held);
  void end_processes();

 private:
  static peer* if_process_of(peer* registered, const sender& from) {
    return registered != nullptr && registered->is_process_of(from) ? registered : nullptr;
  }
  std::string_view service_of(const KXmessage& message) const;
  bool watch_for(peer& owner, int fd, watch::kind_e kind);
  void show_sent(const peer& to, outlet::result_e result, const KXmessage& message, const peer* from,
                 std::uint64_t begun_ns);
  void show_delivered(const peer& to, const datagram& message, unsigned long sender);
  void flush(peer& to, outlet& way);
  void forget(std::unique_ptr<peer> gone);
  void report_lost(peer& gone);
  template <typename Predicate>
  void fail_all(Predicate is_meant, const char* reason);

  reporter& m_report;
  watch m_watch;
  unique_fd m_probe;  // tries whether a socket exists
  directory m_services;
  peer_map m_peers;  // by the path of the management socket
  std::unordered_map<std::string, peer*> m_by_data_path;
  unsigned int m_gone = 0;  // peers that are given up
};

#endif
