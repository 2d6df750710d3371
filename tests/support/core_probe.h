// The core in the test's own process, whole or its rooms alone, and components made of raw sockets around it.
#ifndef TESTS_CORE_PROBE_H
#define TESTS_CORE_PROBE_H

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
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
  // The component of this name, which is there from now on.
  raw_component& at(const std::string& name) {
    auto& entry = m_components[name];
    if (entry == nullptr) entry = std::make_unique<raw_component>(name);
    return *entry;
  }
  void remove(const std::string& name) { m_components.erase(name); }

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

  // Takes steps, separated by semicolons, each with the outcome that it is to have behind " = ", or none:
  //
  // - "client REQ get client.get 5 > server = REQ 5": data, of a type, to a siid, from a siid, with an id;
  // who
  //   gets what. Without the type: who gets what that was sent before.
  // - "client uses get = nobody offers 'get'": a request, and why it is refused. What is granted is a number
  //   from then on: the siid "get" of a service; "client.get" and "client.get#" are the siid and the first
  //   message id of its user.
  // - "get as old", "get is old": gives a number another name; whether two are the same.
  void play(const std::string& steps) {
    std::istringstream text(steps);
    for (std::string step; std::getline(text >> std::ws, step, ';');) {
      const std::size_t end = step.find(" = ");
      std::istringstream action(step.substr(0, end));
      const std::vector<std::string> words{std::istream_iterator<std::string>(action), {}};
      std::string outcome = end == std::string::npos ? "" : step.substr(end + 3);
      if (const auto name = outcome.substr(outcome.find(' ') + 1);
          m_numbers.count(name.substr(0, name.find('+'))))
        outcome.replace(outcome.size() - name.size(), name.size(), std::to_string(number(name)));
      EXPECT_EQ(outcome, take(words)) << step;
    }
  }

  int number(const std::string& text) const {
    const auto entry = m_numbers.find(text.substr(0, text.find('+')));
    if (entry == m_numbers.end()) return std::stoi(text);
    return entry->second + (text.find('+') < text.size() ? std::stoi(text.substr(text.find('+'))) : 0);
  }

  virtual void serve_mgmt(raw_component& from, const KXmessage& message) = 0;
  virtual void serve_data(raw_component& from, const KXmessage& message) = 0;

  static constexpr char everybody[] =
      "server registers; client registers; other registers; server offers get; server signals tick; client "
      "uses get";
  KXmessage reply;

 private:
  std::string take(const std::vector<std::string>& words) {
    static const std::map<std::string, msg_type_e> types = {
        {"REQ", MSG_REQ}, {"RSP", MSG_RSP}, {"ERR", MSG_ERR}, {"SIG", MSG_SIG}};
    static const std::vector<std::string> verbs = {"",        "registers", "leaves",  "offers",
                                                   "signals", "withdraws", "retires", "uses",
                                                   "hears",   "releases",  "ignores"};
    const std::string& verb = words.at(1);
    if (verb == "as") return m_numbers[words.at(2)] = number(words[0]), "";
    if (verb == "is") return number(words[0]) == number(words.at(2)) ? "" : "no";
    if (verb == ">") return at(words.at(2)).arrived();
    if (types.count(verb) != 0) {
      serve_data(at(words[0]), make_message(static_cast<unsigned int>(number(words.at(2))),
                                            static_cast<unsigned int>(number(words.at(3))), types.at(verb), 5,
                                            static_cast<unsigned int>(number(words.at(4)))));
      return words.size() > 6 ? at(words[6]).arrived() : "";
    }
    return request(at(words[0]), words.size() > 2 ? words[2] : "",
                   std::find(verbs.begin(), verbs.end(), verb) - verbs.begin());
  }

  std::string request(raw_component& by, const std::string& service, long row) {
    const auto cmd = static_cast<mgmt_cmd_e>(row);
    const command_kind_e kind = facts_of(cmd).kind;
    const bool is_number = kind == WITHDRAWAL && cmd != CMD_UNREG_COMPONENT;
    const std::string reason = ask(by, cmd, service,
                                   is_number               ? number(service)
                                   : cmd == CMD_REG_SIGNAL ? KXconnection::SGNL
                                                           : 0);
    if (!reason.empty() || (kind != OFFER && kind != SUBSCRIPTION)) return reason;
    const std::string granted = kind == OFFER ? service : by.name + "." + service;
    for (const std::string end : {"", "~", "#"})  // a siid, and for a user that of the service, and the ids
      if (reply.pos < reply.size) reply >> m_numbers[granted + end];
    return "";
  }

  std::map<std::string, std::unique_ptr<raw_component>> m_components;
  std::map<std::string, int> m_numbers;
};

// The rooms between inbox and outlets, which believe what a component claims of its process.
class rooms : public bus_test {
 protected:
  void SetUp() override { play(everybody); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    management.serve({from.mgmt.path(), from.pid, from.uid}, KXmessage(message));
    peers.forget_gone();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    KXmessage taken = message;
    routes.serve({from.data.path(), from.pid, from.uid}, taken);
    peers.forget_gone();
  }

  // Lets nobody read: what is sent is queued.
  void block() { seam::fail(seam::SEND, EAGAIN, 9999); }
  void unblock() { seam::fail(seam::SEND, 0, 0), peers.serve(false), peers.forget_gone(); }

  bool is_registered(const std::string& name) { return peers.at_mgmt("/tmp/kxcore/" + name) != nullptr; }

  reporter report{false};
  strangers outsiders{report, "/tmp/kxcore/"};
  roster peers{report};
  registrar management{peers, outsiders, report, fake_core::data_path};
  router routes{peers, outsiders, report};
};

// The whole core, reached by its sockets.
class whole_core : public bus_test {
 protected:
  void SetUp() override { play(everybody); }

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
