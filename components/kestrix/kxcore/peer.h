// A registered component, as the core sees it.
#ifndef PEER_H
#define PEER_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "outlet.h"

struct peer {
  peer(std::string component_name, std::string mgmt_socket, std::string data_socket, pid_t process_id);

  // Whether its process has ended. Without pidfds in the kernel the core asks only when the answer matters.
  bool has_ended() const;

  const std::string name;
  const std::string mgmt_path;
  const std::string data_path;
  const pid_t pid;
  const unique_fd process;  // pidfd, readable when the process has ended; -1 without
  outlet mgmt;
  outlet data;
  std::set<std::uint32_t> siids;  // that its stubs, proxies and subscriptions hold
  bool is_gone = false;
};

#endif
