// A registered component, as the core sees it.
#ifndef PEER_H
#define PEER_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "inbox.h"
#include "open_requests.h"
#include "outlet.h"
#include "socket_file.h"
#include "tally.h"
#include "unique_fd.h"

struct peer {
  // Of one component, so that none gets all the siids and message ids there are.
  static constexpr unsigned int max_grants = 1024;

  // The component `name`, of the process that sent from its management socket.
  peer(std::string component_name, const sender& from, const std::string& data_socket);

  bool is_connected() const { return mgmt.connected() && data.connected(); }

  // Whether both sockets are its user's.
  bool has_own_sockets() const { return mgmt_file.identity().owner == uid && data_file.owner == uid; }

  // Whether one of them is one of the other's.
  bool shares_sockets_with(const peer& other) const;

  // Whether the process that sent something is the component's. Of the same user any is, when the component's
  // is not known, or has ended and left its sockets to a child.
  bool is_process_of(const sender& from) const;

  bool is_alive() const;  // its process; false when that is not known

  const unsigned long serial;  // of this registration
  const std::string name;
  const std::string mgmt_path;
  const std::string_view label;  // its path below the bus directory, by which others are told of it
  const std::string data_path;
  const socket_file mgmt_file;
  const file_identity data_file;
  const uid_t uid;
  const pid_t pid;  // 0 when it is not known
  const std::uint64_t since_ns;
  const unique_fd process;  // pidfd, readable when the process has ended; -1 without
  outlet mgmt;
  outlet data;
  open_requests open;             // that its proxies and stubs have made
  std::set<std::uint32_t> siids;  // that its stubs, proxies and subscriptions hold
  unsigned int grants = 0;        // services and subscriptions
  tally of_its_own;               // messages that were not accepted
  std::uint64_t sent = 0;         // data messages, and their bytes
  std::uint64_t sent_bytes = 0;
  bool has_ended = false;  // its process; what it sent before is not served yet
  bool is_gone = false;
  bool is_told_to_end = false;

 private:
  peer(std::string component_name, const sender& from, const std::string& data_socket,
       socket_file mgmt_socket, const socket_file& data_socket_file);
};

#endif
