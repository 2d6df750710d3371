// A registered component, as the core sees it.
#ifndef PEER_H
#define PEER_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "outlet.h"

struct peer {
  // Of one component, so that none gets all the siids and message ids there are.
  static constexpr unsigned int max_grants = 1024;

  peer(std::string component_name, std::string mgmt_socket, std::string data_socket, pid_t process_id);

  bool is_connected() const { return mgmt.connected() && data.connected(); }

  // Whether its management socket does not exist any more. A process that ended has none; one that went on as
  // a child of the one that registered has. `probe` is a datagram socket to try it with.
  bool is_unreachable(int probe) const;

  const unsigned long serial;  // of this registration
  const std::string name;
  const std::string mgmt_path;
  const std::string data_path;
  pid_t pid;                // 0 when it is not known
  const unique_fd process;  // pidfd, readable when the process has ended; -1 without
  outlet mgmt;
  outlet data;
  std::set<std::uint32_t> siids;  // that its stubs, proxies and subscriptions hold
  unsigned int grants = 0;        // services and subscriptions
  unsigned long dropped = 0;      // messages and notices of its own that were refused
  bool has_ended = false;         // its process; what it sent before is not served yet
  bool is_gone = false;
  bool is_told_to_end = false;
};

#endif
