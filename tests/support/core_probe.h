// The core in the test's own process, whole or its rooms alone, and components made of raw sockets around it.
#ifndef TESTS_CORE_PROBE_H
#define TESTS_CORE_PROBE_H

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include "KXcore.h"
#include "child_process.h"
#include "longer_queues.h"
#include "management.h"
#include "probe.h"
#include "socket_address.h"

struct core_surroundings {
  reporter report{false};
  bus_directory place{"/tmp/kxcore"};
};

class core_probe : private core_surroundings, public probe_of<KXcore> {
 public:
  core_probe() : probe_of(place, report) {}

  // Serves its descriptors until nothing is left to do.
  void serve() {
    for (int turns = 0; poll(m_fda, static_cast<nfds_t>(m_nfds), 0) > 0; ++turns) {
      ASSERT_LT(turns, 100'000) << "it does not come to rest";
      for (int i = 0; i < m_nfds; ++i)
        if (m_fda[i].revents != 0) m_fd_handlers[i].handler(m_fd_handlers[i].context, m_fda[i].fd);
    }
  }
};

struct raw_component {
  explicit raw_component(const std::string& component)
      : name(component), mgmt("/tmp/kxcore/" + name), data("/tmp/kxcore/" + name + "-d") {}

  // A management message with the payload that its command has; `number` is an interface type or a siid.
  KXmessage make(mgmt_cmd_e cmd, const std::string& service, int number, msg_type_e type = MSG_REQ) {
    KXmessage message = make_message(7, 8, type, cmd, ++last_id);
    const bool offers = facts_of(cmd).kind == OFFER;
    if (offers || cmd == CMD_REG_COMPONENT || cmd == CMD_UNREG_COMPONENT) message << name;
    if (cmd == CMD_REG_COMPONENT) message << data.path();
    if (offers || facts_of(cmd).kind == SUBSCRIPTION) message << service;
    if (offers) message << "none", message << "none";
    if (offers || message.size == 0) message << static_cast<unsigned int>(number);
    return message;
  }
  void manage(mgmt_cmd_e cmd, const std::string& service, int number, msg_type_e type = MSG_REQ) {
    mgmt.send(fake_core::mgmt_path, make(cmd, service, number, type));
  }

  // What has come to one of the sockets: "REQ 5, ERR 7 (the reason)".
  static std::string arrived(const raw_socket& at) {
    std::string text;
    for (KXmessage message; at.receive(message);) {
      const msg_header_t& header = *message.m_header;
      text += (text.empty() ? "" : ", ") + std::string(msg_type_name(header.msg_type)) + " " +
              std::to_string(ntohl(header.msg_id));
      std::string reason;
      if (header.msg_type == MSG_ERR && message.size > 0) message >> reason, text += " (" + reason + ")";
    }
    return text;
  }
  std::string arrived() const { return arrived(data); }

  std::string name;
  raw_socket mgmt;
  raw_socket data;
  pid_t pid = getpid();  // that it claims to the rooms
  uid_t uid = geteuid();
  unsigned int last_id = 100;
};

// How many descriptors this process has.
inline long open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

inline void limit_descriptors(long count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(count);
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
}

// A socket file that a dead process has left.
inline void leave_dead_socket(const char* path) {
  const raw_socket living("/tmp/kxcore/living");
  EXPECT_EQ(0, link(living.path().c_str(), path));
}

// The base of tests of the bus; what comes to the core is carried there by `serve_mgmt` and `serve_data`.
class bus_test : public seam_test {
 protected:
  using ints = std::vector<int>;

  // Sends a management message; the reason why it was refused, empty without an answer or when it was
  // granted. The answer is then in `reply`.
  std::string tell(raw_component& from, const KXmessage& message) {
    serve_mgmt(from, message);
    reply = from.mgmt.receive_message();
    std::string reason;
    if (reply.m_header->msg_type == MSG_ERR) reply >> reason;
    return reason;
  }
  std::string ask(raw_component& from, mgmt_cmd_e cmd, const std::string& service = "", int number = 0,
                  msg_type_e type = MSG_REQ) {
    return tell(from, from.make(cmd, service, number, type));
  }
  void notify(raw_component& from, mgmt_cmd_e cmd, int siid = 0) { ask(from, cmd, "", siid, MSG_SIG); }

  // The numbers that the core grants, none when it refuses.
  ints grant(raw_component& from, mgmt_cmd_e cmd, const std::string& service, int number = 0) {
    ints values;
    if (!ask(from, cmd, service, number).empty()) return values;
    for (int value; reply.pos < reply.size; values.push_back(value))
      reply >> value;
    return values;
  }
  int offer(raw_component& from, const std::string& name) {
    return grant(from, CMD_REG_FUNCTION, name).at(0);
  }

  // Sends data through the core; what is then there at `to`.
  std::string pass(raw_component& from, int dst, int src, msg_type_e type, int msg_id,
                   const raw_component& to) {
    return serve_data(from, make_message(dst, src, type, 5, msg_id)), to.arrived();
  }

  // Who the tests are about: `get` and `tick` are the services of `server`, `proxy` one of `client`.
  void begin() {
    for (raw_component* each : {&server, &client, &other})
      EXPECT_EQ("", ask(*each, CMD_REG_COMPONENT));
    get = offer(server, "get");
    tick = grant(server, CMD_REG_SIGNAL, "tick", KXconnection::SGNL).at(0);
    const ints granted = grant(client, CMD_SUB_FUNCTION, "get");
    proxy = granted.at(0), id = granted.at(2);
  }

  virtual void serve_mgmt(raw_component& from, const KXmessage& message) = 0;
  virtual void serve_data(raw_component& from, const KXmessage& message) = 0;

  raw_component server{"server"}, client{"client"}, other{"other"};
  KXmessage reply;
  int get, tick, proxy;
  int id;  // the first of the message ids of `proxy`
};

// The rooms between inbox and outlets, which believe what a component claims of its process.
class rooms : public bus_test {
 protected:
  void SetUp() override { begin(); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    management.serve({from.mgmt.path(), from.pid, from.uid}, KXmessage(message));
    peers.forget_gone();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    KXmessage taken = message;
    routes.serve({from.data.path(), from.pid, from.uid}, taken);
    peers.forget_gone();
  }

  // Lets `to` not read: what comes to it is queued.
  void block() { seam::fail(seam::SEND, EAGAIN, 9999); }
  void unblock() { seam::fail(seam::SEND, 0, 0), peers.serve(false), peers.forget_gone(); }

  reporter report{false};
  strangers outsiders{report, "/tmp/kxcore/"};
  roster peers{report};
  registrar management{peers, outsiders, report, fake_core::data_path};
  router routes{peers, outsiders, report};
};

// The whole core, reached by its sockets.
class whole_core : public bus_test {
 protected:
  void SetUp() override { begin(); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    from.mgmt.send(fake_core::mgmt_path, message), subject.serve();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    from.data.send(fake_core::data_path, message), subject.serve();
  }

  static std::unique_ptr<core_probe> create() {
    const longer_queues queues;
    return std::make_unique<core_probe>();
  }

  const std::unique_ptr<core_probe> owned = create();
  core_probe& subject = *owned;
};

#endif
