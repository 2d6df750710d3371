// The core in the test's own process, and components made of raw sockets around it.
#ifndef TESTS_CORE_PROBE_H
#define TESTS_CORE_PROBE_H

#include <poll.h>

#include <string>

#include "KXcore.h"
#include "management.h"
#include "probe.h"

struct core_surroundings {
  reporter report{false};
  bus_directory place{"/tmp/kxcore"};
};

class core_probe : private core_surroundings, public probe_of<KXcore> {
 public:
  core_probe() : probe_of(place, report) {}

  // Serves its descriptors until nothing is left to do.
  void serve() {
    while (poll(m_fda, static_cast<nfds_t>(m_nfds), 0) > 0) {
      for (int i = 0; i < m_nfds; ++i)
        if (m_fda[i].revents != 0) m_fd_handlers[i].handler(m_fd_handlers[i].context, m_fda[i].fd);
    }
  }
};

struct raw_component {
  explicit raw_component(const std::string& component)
      : name(component), mgmt("/tmp/kxcore/" + name), data("/tmp/kxcore/" + name + "-d") {}

  // Sends a management message with the payload that its command has; `number` is an interface type or a
  // siid.
  void manage(mgmt_cmd_e cmd, const std::string& service, int number, msg_type_e type = MSG_REQ) {
    KXmessage message = make_message(7, 8, type, cmd, ++last_id);
    const bool offers = facts_of(cmd).kind == OFFER;
    if (offers || cmd == CMD_REG_COMPONENT || cmd == CMD_UNREG_COMPONENT) message << name;
    if (cmd == CMD_REG_COMPONENT) message << data.path();
    if (offers || facts_of(cmd).kind == SUBSCRIPTION) message << service;
    if (offers) message << "none", message << "none";
    if (offers || message.size == 0) message << static_cast<unsigned int>(number);
    mgmt.send(fake_core::mgmt_path, message);
  }

  std::string name;
  raw_socket mgmt;
  raw_socket data;
  unsigned int last_id = 100;
};

#endif
