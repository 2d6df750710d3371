// What the doctor looks at: each check adds what it has found.
#ifndef KXCTL_CHECKS_H
#define KXCTL_CHECKS_H

#include <string>
#include <vector>

#include "session.h"

struct finding {
  enum level_e { OK, WARN, FAIL };

  level_e level;
  std::string what;
  std::string advice;  // "" for none
};

using findings = std::vector<finding>;

// Of this machine, with or without a core.
void check_kernel(findings& found);
void check_directory(const std::string& path, findings& found);
void check_stale_sockets(const std::string& path, findings& found);
void check_queue_length(const std::string& setting, findings& found);
void check_names(const std::string& sockets, findings& found);        // from /proc/net/unix
void check_descriptors(const std::string& process, findings& found);  // /proc/PID of the core

// Of the bus, as the core tells it.
void check_readers(const session::rows& before, const session::rows& now, findings& found);
void check_grants(const session::rows& components, findings& found);

// Who asks in vain: the reasons why a component was refused.
struct refusals {
  std::string component;
  session::rows reasons;
};
void check_wishes(const std::vector<refusals>& all, const session::rows& services, findings& found);

#endif
