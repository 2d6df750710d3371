// The core in the test's own process, and components made of raw sockets around it.
#ifndef TESTS_RAW_COMPONENT_H
#define TESTS_RAW_COMPONENT_H

#include <poll.h>

#include <string>

#include "KXcore.h"
#include "probe.h"

class core_probe : public KXcore {
 public:
  core_probe() : KXcore(false) {}
  ~core_probe() override { stop(); }

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
    const bool offers = cmd == CMD_REG_FUNCTION || cmd == CMD_REG_SIGNAL;
    if (offers || cmd == CMD_REG_COMPONENT || cmd == CMD_UNREG_COMPONENT) message << name;
    if (cmd == CMD_REG_COMPONENT) message << data.path();
    if (offers || cmd == CMD_SUB_FUNCTION || cmd == CMD_SUB_SIGNAL) message << service;
    if (offers) message << "none", message << "none";
    if (offers || message.size == 0) message << static_cast<unsigned int>(number);
    mgmt.send(fake_core::mgmt_path, message);
  }

  void send(int dst, int src, msg_type_e type, unsigned int id) const {
    data.send(fake_core::data_path,
              make_message(static_cast<unsigned int>(dst), static_cast<unsigned int>(src), type, 5, id));
  }

  std::string name;
  raw_socket mgmt;
  raw_socket data;
  unsigned int last_id = 100;
};

#endif
