// The core of the bus: a component named kxcore that answers the management requests of the others and
// forwards their data messages.
//
// It never waits for anybody. At each turn it takes from its sockets what is there, up to a limit; a
// management message, and the end of a process, are held until the data is served that came before, so that
// what a component sends before it withdraws still counts as its own. What a component does not read is
// queued for it up to a limit and costs the others nothing (outlet.h). A component whose process ends, or
// whose socket is gone when something is sent to it, is forgotten with all that it was granted. Whatever a
// sender claims is checked against the path of the socket that it sent from, and in management against its
// process.
#ifndef KXCORE_H
#define KXCORE_H

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "KXcomponent.h"
#include "console.h"
#include "directory.h"
#include "inbox.h"
#include "outlet.h"
#include "peer.h"

class KXcore : public KXcomponent {
 public:
  // `verbose` writes a line to standard output for everything that happens to a component; without it only
  // what goes wrong is written, to standard error. SIGTERM, SIGINT and SIGQUIT are to be blocked before: the
  // core reads them from a descriptor and stops in order. Throws KXerror::ERR_SOCKET_BIND, or
  // std::system_error.
  explicit KXcore(bool verbose);

  // A socket of the core holds this many unread datagrams and one, where the system permits; more only where
  // it has been told to.
  static constexpr unsigned int socket_queue = 4096;

  void get_mgmt_message(int fd) override;
  void get_data_message(int fd) override;

 private:
  // A management request and what is known of its sender.
  struct request {
    const std::string& sender;
    pid_t pid;
    peer* from;  // null for a sender that is not registered
    const KXmessage& message;

    mgmt_cmd_e cmd() const { return static_cast<mgmt_cmd_e>(message.m_header->cmd); }
    std::string name() const;
  };

  // Components are told to end a few at a time: what they all answer at once would overflow the core's queue
  // and cost each a second's pause.
  static constexpr int stop_group = 3;
  static constexpr int stop_interval_ms = 50;
  static constexpr int stop_intervals = 60;

  bool holds_something() const { return m_held > 0 || m_processes_ended; }
  void serve_held();
  void handle_management(const request& received);
  std::string answer(const request& received, KXmessage& reply);
  std::string register_peer(const request& received, KXmessage& reply);
  std::string unregister_peer(const request& received);
  std::string offer_service(const request& received, KXmessage& reply);
  std::string withdraw_service(const request& received);
  std::string subscribe(const request& received, KXmessage& reply);
  std::string unsubscribe(const request& received);
  void respond(const request& received, const KXmessage& reply);

  void route(peer& from, KXmessage& message);
  void fan_out(const service& signal, KXmessage& message, peer* requester);
  void forward(peer& to, const KXmessage& message, peer* from);
  void answer_undelivered(const KXmessage& message, peer* requester, const char* reason);
  // The component with this management socket; null when it is another process that sends. A pid of 0 is any.
  peer* peer_at(const std::string& mgmt_path, pid_t pid) const;
  unsigned long& dropped_of(peer* from);  // the counter of a peer, or of all who are not registered
  void drop(peer* from, const std::string& sender, const char* reason);

  // `from` is null for what the core itself says.
  outlet::result_e send(peer& to, outlet& way, const KXmessage& message, const peer* from);
  bool watch(peer* owner, int fd, unsigned int events);  // null: of the core itself
  void watch_for(peer& owner, int fd, unsigned int events);
  void flush(peer& to, outlet& way);
  void process_ended(peer& of);
  void serve_watched();
  static int static_serve_watched(void* context, int fd);

  void give_up(peer& gone, const char* reason);
  void give_up_unreachable_peers();
  void forget_gone_peers();
  void answer_lost_requests(const std::vector<datagram>& queue);

  void begin_stop();
  void tell_to_end(int count);
  int continue_stop();
  void take_signal();
  static int static_continue_stop(void* context, int cookie);

  const bool m_verbose;
  console m_console;
  bool m_stopping = false;
  int m_stop_intervals = 0;
  unsigned long m_strangers_dropped = 0;
  unique_fd m_signals;
  unique_fd m_watched;             // epoll: signals, processes of components, and sockets that wait for room
  unique_fd m_probe;               // for peer::is_unreachable
  unsigned int m_held = 0;         // messages in the management inbox that wait for the data before them
  bool m_processes_ended = false;  // and so do the ends of processes
  unsigned int m_data_ahead = 0;   // datagrams that may have come before what is held
  inbox m_mgmt_inbox;
  inbox m_data_inbox;
  directory m_directory;
  std::unordered_map<std::string, std::unique_ptr<peer>> m_peers;  // by name
  std::unordered_map<std::string, peer*> m_by_mgmt_path;
  std::unordered_map<std::string, peer*> m_by_data_path;
  std::vector<peer*> m_gone;
};

#endif
