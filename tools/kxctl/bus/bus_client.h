// A component of the bus, made of its two sockets: what the verbs of kxctl do there. It leaves the bus in
// order, whatever ends it, and never waits beyond what it was given.
//
// All functions that wait throw failure: at the end of their time, when a signal is to end the program, when
// the core tells the component to end, and when the core itself has ended.
#ifndef KXCTL_BUS_CLIENT_H
#define KXCTL_BUS_CLIENT_H

#include <poll.h>

#include <optional>
#include <string>
#include <vector>

#include "KXconnection.h"
#include "bus_socket.h"
#include "interruption.h"
#include "management.h"
#include "shell.h"

class bus_client {
 public:
  static constexpr char directory[] = "/tmp/kxcore/";

  using time_point = steady::time_point;

  // Registers as "kxctl-PID".
  explicit bus_client(time_point until);
  ~bus_client();
  bus_client(const bus_client&) = delete;
  bus_client& operator=(const bus_client&) = delete;

  const std::string& name() const { return m_name; }
  pid_t core_pid() const { return m_core_pid; }  // 0 when it is not known

  // What the core has granted: the siid to send with, and the ids of requests.
  struct proxy {
    std::uint32_t siid, service_siid, first_id, end_id, last_id;
  };
  // Throws failure with the core's own words when it refuses.
  proxy subscribe(const std::string& service, bool is_signal, time_point until);
  std::uint32_t offer(const std::string& service, KXconnection::interface_type_e kind, time_point until);
  void give_back(const proxy& granted, time_point until);

  // Sends to the service of a proxy: a request, which has the next id, or a signal.
  std::uint32_t send(proxy& from, msg_type_e type, std::uint8_t cmd, const KXmessage& payload,
                     time_point until);
  void send(const KXmessage& message, time_point until);

  // A request and its answer, RSP or ERR.
  KXmessage call(proxy& to, std::uint8_t cmd, const KXmessage& payload, time_point until);

  // The next data message; false at the end of the time.
  bool receive(KXmessage& message, time_point until);

  bool take(KXmessage& message);  // one that has come

  // Becomes ready when data has come.
  pollfd data() const { return {m_data.fd(), POLLIN, 0}; }

  // Waits until one of these is ready, or a child has ended; false at the end of the time. It may return
  // early.
  bool wait(std::vector<pollfd>& entries, time_point until);

  // Nothing but waiting.
  void rest(time_point until);

 private:
  KXmessage request(const KXmessage& message, time_point until, status_e refused = REFUSED);
  void read_management();
  void send_to(const bus_socket& from, const std::string& path, const KXmessage& message, time_point until);
  void notice(mgmt_cmd_e cmd, std::uint32_t siid, time_point until);
  void leave();

  struct grant {
    mgmt_cmd_e given_back_by;
    std::uint32_t siid;
  };

  const std::string m_core_path;
  const interruption m_signals;
  const std::string m_name;
  const bus_socket m_mgmt;
  const bus_socket m_data;
  std::string m_core_data_path;
  pid_t m_core_pid = 0;
  unique_fd m_core_process;  // readable when it has ended; -1 where that cannot be known
  std::vector<grant> m_grants;
  std::uint32_t m_last_id = 0;            // of a management message
  std::optional<msg_header_t> m_awaited;  // the header of the request whose reply is awaited
  std::optional<KXmessage> m_reply;
};

#endif
