// Components made of raw sockets around the core or its rooms, and the language in which tests tell what they
// do.
#ifndef TESTS_CORE_SCENES_H
#define TESTS_CORE_SCENES_H

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "KXconnection.h"
#include "management.h"
#include "probe.h"

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
  void manage(mgmt_cmd_e cmd, const std::string& service = "", msg_type_e type = MSG_REQ) {
    mgmt.send(fake_core::mgmt_path, make(cmd, service, 0, type));
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

  std::string name;
  raw_socket mgmt;
  raw_socket data;
  pid_t pid = getpid();  // that it claims to the rooms
  uid_t uid = geteuid();
  unsigned int last_id = 100;
};

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

  // Takes steps, one a line or separated by semicolons, each with the outcome that it is to have behind " =
  // ", or none. "9 times" before a step repeats it, and the number "i" counts.
  //
  // - "client REQ get client.get 5 > server = REQ 5": data, of a type, to a siid, from a siid, with an id;
  // who
  //   gets what. "> server" alone: who gets what that was sent before, ">>" on its management socket.
  // - "client uses get = nobody offers 'get'": a request, and why it is refused. What is granted is a number
  //   from then on: the siid "get" of a service; "client.get" and "client.get#" are the siid and the first
  //   message id of its user.
  // - "get as old", "get is old": gives a number another name; whether two are the same.
  // - "client pid 7", "client uid 7": what it claims from now on. "client goes": its sockets do; "client
  //   vanishes": the file of one.
  // - "SEND fails EAGAIN 9 2": nine calls of the system, after two that pass. "serve": what is there.
  // - "lines a text = 1": how many lines with it were written; "forget": those.
  void play(const std::string& steps) {
    std::string text = steps;
    std::replace(text.begin(), text.end(), '\n', ';');
    std::istringstream lines(text);
    for (std::string step; std::getline(lines >> std::ws, step, ';');) {
      const std::size_t end = std::min(step.find(" = "), step.size());
      std::istringstream action(step.substr(0, end));
      std::vector<std::string> words{std::istream_iterator<std::string>(action), {}};
      if (words.empty()) continue;
      const int times = words.size() > 2 && words[1] == "times" ? std::stoi(words[0]) : 1;
      if (times > 1) words.erase(words.begin(), words.begin() + 2);
      for (int& i = m_numbers["i"] = 0; i < times; ++i) {
        const std::string taken = take(words);
        EXPECT_EQ(numbered(step.substr(std::min(end + 3, step.size()))), taken) << step;
      }
    }
  }

  int number(const std::string& text) const {
    const auto entry = m_numbers.find(text.substr(0, text.find('+')));
    if (entry == m_numbers.end()) return std::stoi(text);
    return entry->second + (text.find('+') < text.size() ? std::stoi(text.substr(text.find('+'))) : 0);
  }
  unsigned int operator[](const std::string& name) const { return static_cast<unsigned int>(number(name)); }

  virtual void serve_mgmt(raw_component& from, const KXmessage& message) = 0;
  virtual void serve_data(raw_component& from, const KXmessage& message) = 0;
  virtual void serve() = 0;

  static constexpr char everybody[] =
      R"(server registers; client registers; other registers; server offers get
                                         server signals tick; client uses get)";
  KXmessage reply;

 private:
  static bool is_type(const std::string& word) { return word.size() == 3 && std::isupper(word[0]) != 0; }

  // An outcome, with the ids of messages in place of their names.
  std::string numbered(const std::string& outcome) const {
    std::istringstream words(outcome);
    std::string text, before;
    for (std::string word; words >> word; before = word) {
      const bool is_id = is_type(before) && m_numbers.count(word.substr(0, word.find('+'))) != 0;
      text += (text.empty() ? "" : " ") + (is_id ? std::to_string(number(word)) : word);
    }
    return text;
  }

  std::string take(const std::vector<std::string>& words) {
    const std::string &first = words[0], verb = words.size() > 1 ? words[1] : "";
    const auto given = [&](std::size_t i, int otherwise) {
      return words.size() > i ? number(words[i]) : otherwise;
    };
    if (first == "serve") return serve(), "";
    if (first == "forget") return seam::clear_lines(), "";
    if (first == ">") return raw_component::arrived(at(verb).data);
    if (first == ">>") return raw_component::arrived(at(verb).mgmt);
    if (verb == "as") return m_numbers[words.at(2)] = number(first), "";
    if (verb == "is") return number(first) == number(words.at(2)) ? "" : "no";
    if (verb == "goes") return remove(first), "";
    if (verb == "vanishes") return unlink(at(first).mgmt.path().c_str()) == 0 ? "" : "no";
    if (verb == "pid") return at(first).pid = given(2, 0), "";
    if (verb == "uid") return at(first).uid = (*this)[words.at(2)], "";
    if (verb == "fails")
      return seam::fail(seam::call_e(number(first)), given(2, 0), given(3, 1), given(4, 0)), "";
    if (is_type(verb)) return carry(words);
    if (first != "lines")
      return request(at(first), mgmt_cmd_e(number(verb)), words.size() > 2 ? words[2] : "");
    std::string text = verb;
    for (std::size_t i = 2; i < words.size(); ++i)
      text += " " + words[i];
    return std::to_string(seam::times_logged(text));
  }

  std::string carry(const std::vector<std::string>& words) {
    serve_data(at(words[0]), make_message((*this)[words.at(2)], (*this)[words.at(3)],
                                          msg_type_e(number(words[1])), 5, (*this)[words.at(4)]));
    return words.size() > 6 ? raw_component::arrived(at(words[6]).data) : "";
  }

  std::string request(raw_component& by, mgmt_cmd_e cmd, const std::string& service) {
    const command_kind_e kind = facts_of(cmd).kind;
    const bool is_siid = kind == WITHDRAWAL && cmd != CMD_UNREG_COMPONENT;
    const int type = cmd == CMD_REG_SIGNAL ? KXconnection::SGNL : KXconnection::SYNC;
    const std::string reason = ask(by, cmd, service, is_siid ? number(service) : type);
    if (!reason.empty() || (kind != OFFER && kind != SUBSCRIPTION)) return reason;
    const std::string granted = kind == OFFER ? service : by.name + "." + service;
    for (const std::string end : {"", "~", "#"})  // a siid, and for a user that of the service, and the ids
      if (reply.pos < reply.size) reply >> m_numbers[granted + end];
    return "";
  }

  std::map<std::string, std::unique_ptr<raw_component>> m_components;
  std::map<std::string, int> m_numbers = {{"self", getpid()},
                                          {"own", int(geteuid())},
                                          {"REQ", MSG_REQ},
                                          {"RSP", MSG_RSP},
                                          {"ERR", MSG_ERR},
                                          {"SIG", MSG_SIG},
                                          {"registers", CMD_REG_COMPONENT},
                                          {"leaves", CMD_UNREG_COMPONENT},
                                          {"offers", CMD_REG_FUNCTION},
                                          {"signals", CMD_REG_SIGNAL},
                                          {"withdraws", CMD_UNREG_FUNCTION},
                                          {"retires", CMD_UNREG_SIGNAL},
                                          {"uses", CMD_SUB_FUNCTION},
                                          {"hears", CMD_SUB_SIGNAL},
                                          {"releases", CMD_UNSUB_FUNCTION},
                                          {"ignores", CMD_UNSUB_SIGNAL},
                                          {"CONNECT", seam::CONNECT},
                                          {"EPOLL_CTL", seam::EPOLL_CTL},
                                          {"KILL", seam::KILL},
                                          {"PIDFD_OPEN", seam::PIDFD_OPEN},
                                          {"SEND", seam::SEND},
                                          {"SOCKET", seam::SOCKET},
                                          {"INOTIFY_ADD_WATCH", seam::INOTIFY_ADD_WATCH},
                                          {"EAGAIN", EAGAIN},
                                          {"ECONNREFUSED", ECONNREFUSED},
                                          {"EMFILE", EMFILE},
                                          {"ENFILE", ENFILE},
                                          {"ENOSPC", ENOSPC},
                                          {"ENOSYS", ENOSYS},
                                          {"EPERM", EPERM},
                                          {"ESRCH", ESRCH}};
};

// Makes tests of a text: a line that is not indented is the sentence of the next one, and its steps are
// below. Rows that begin with a bar make it a test for each, with the row's values in place of $1, $2 and $3.
template <typename Fixture>
class scenes {
 public:
  scenes(const char* suite, const char* text) : m_suite(suite) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (line.empty()) continue;
      const std::size_t bar = line.find("  | ");
      if (line[0] != ' ') add(), m_name = line;
      if (bar == 0) m_rows.push_back(line.substr(4));
      if (bar != 0 && line[0] == ' ') m_steps += line + "\n";
    }
    add();
  }

 private:
  struct scene : Fixture {
    explicit scene(std::string taken) : steps(std::move(taken)) {}
    void TestBody() override { this->play(steps); }
    const std::string steps;
  };

  void add() {
    std::replace(m_name.begin(), m_name.end(), ' ', '_');
    if (m_rows.empty() && !m_name.empty()) m_rows.emplace_back();
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
      const std::string name = m_rows.size() > 1 ? m_name + "_" + std::to_string(i + 1) : m_name;
      testing::RegisterTest(m_suite, name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                            [steps = filled(m_rows[i])]() -> Fixture* { return new scene(steps); });
    }
    m_rows.clear(), m_steps.clear();
  }

  // The steps, with the values of a row.
  std::string filled(const std::string& row) const {
    std::istringstream values(row);
    std::string value, steps = m_steps;
    for (char column = '1'; std::getline(values, value, '|'); ++column) {
      value.erase(0, value.find_first_not_of(' ')).erase(value.find_last_not_of(' ') + 1);
      for (std::size_t at; (at = steps.find(std::string("$") + column)) != std::string::npos;)
        steps.replace(at, 2, value);
    }
    return steps;
  }

  const char* const m_suite;
  std::string m_name, m_steps;
  std::vector<std::string> m_rows;
};

#endif
