#include "kxctl_run.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

namespace {

constexpr int patience_ms = 10'000;

std::vector<std::string> words_of(const std::string& line, char separator) {
  std::vector<std::string> words;
  std::istringstream text(line);
  for (std::string word; std::getline(text, word, separator);)
    words.push_back(word);
  return words;
}

[[noreturn]] void become(const std::string& line) {
  std::vector<std::string> words = words_of(line, ' ');
  for (auto each = words.begin() + 1; each < words.end(); ++each)
    std::replace(each->begin(), each->end(), '~', ' ');
  std::vector<std::string> command =
      words_of(words.front() == "kxcore" ? KXCORE_COMMAND : KXCTL_COMMAND, '|');
  command.insert(command.end(), words.begin() + 1, words.end());
  std::vector<char*> arguments;
  for (std::string& each : command)
    arguments.push_back(each.data());
  arguments.push_back(nullptr);
  execvp(arguments.front(), arguments.data());
  _exit(127);
}

std::string content(int file) {
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
  const ssize_t length = pread(file, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return text;
}

std::string trimmed(std::string text) {
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  return text;
}

bool is_readable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, patience_ms) == 1;
}

}  // namespace

std::string kxctl_in_shell() {
  std::string command = KXCTL_COMMAND;
  std::replace(command.begin(), command.end(), '|', ' ');
  return command;
}

run::run(const std::string& line, const std::function<void()>& prepare)
    : m_out(memfd_create("out", MFD_CLOEXEC)),
      m_err(memfd_create("err", MFD_CLOEXEC)),
      m_process([&] {
        dup2(m_out.get(), STDOUT_FILENO);
        dup2(m_err.get(), STDERR_FILENO);
        if (prepare) prepare();
        become(line);
      }),
      m_name("kxctl-" + std::to_string(m_process.pid())) {}

std::string run::out() const { return content(m_out.get()); }
std::string run::err() const { return content(m_err.get()); }

bool run::has_ended() const {
  siginfo_t ended = {};
  return waitid(P_PID, static_cast<id_t>(pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid != 0;
}

int run::end(int signal) { return m_process.end(signal); }

std::string ended_with(run& program, int signal) {
  const int status = program.end(signal);
  const std::string err = trimmed(program.err());
  return std::to_string(status) + ": " + trimmed(program.out()) + (err.empty() ? "" : "! " + err);
}

std::string kxctl(const std::string& line) {
  run program("kxctl " + line);
  return ended_with(program);
}

bool comes_true(const std::function<bool()>& is_so) {
  for (int waited_ms = 0; waited_ms < patience_ms; ++waited_ms) {
    if (is_so()) return true;
    usleep(1000);
  }
  return false;
}

std::string files() {
  std::set<std::string> names;
  for (const auto& each : std::filesystem::directory_iterator("/tmp/kxcore"))
    if (each.is_socket()) names.insert(each.path().filename());
  std::string text;
  for (const std::string& each : names)
    text += (text.empty() ? "" : " ") + each;
  return text;
}

stand_in::stand_in(const std::string& called)
    : name(called), mgmt("/tmp/kxcore/" + called), data("/tmp/kxcore/" + called + "-d") {
  KXmessage message = make_management(MSG_REQ, CMD_REG_COMPONENT, registration_id);
  message << name;
  message << data.path();
  mgmt.send("/tmp/kxcore/kxcore", message);
  EXPECT_EQ(MSG_RSP, reply().m_header->msg_type) << name;
}

KXmessage stand_in::reply() {
  EXPECT_TRUE(is_readable(mgmt.fd()));
  return mgmt.receive_message();
}

bool stand_in::ask(mgmt_cmd_e cmd, const std::string& service, unsigned int kind,
                   const std::string& comment) {
  KXmessage message = make_management(MSG_REQ, cmd, ++m_last_id);
  const bool is_offer = facts_of(cmd).kind == OFFER;
  if (is_offer) message << name;
  message << service;
  if (is_offer) message << comment, message << "a class", message << kind;
  mgmt.send("/tmp/kxcore/kxcore", message);
  const KXmessage granted = reply();
  if (granted.m_header->msg_type != MSG_RSP) return false;
  int number = 0;
  granted >> number, siid = static_cast<unsigned int>(number);
  if (is_offer) return true;
  granted >> number, service_siid = static_cast<unsigned int>(number);
  granted >> number, first_id = static_cast<unsigned int>(number);
  return true;
}

void stand_in::tell(mgmt_cmd_e cmd, unsigned int number) {
  KXmessage message = make_management(MSG_SIG, cmd, ++m_last_id);
  message << number;
  mgmt.send("/tmp/kxcore/kxcore", message);
}

void stand_in::leave() {
  KXmessage message = make_management(MSG_SIG, CMD_UNREG_COMPONENT, unregistration_id);
  message << name;
  mgmt.send("/tmp/kxcore/kxcore", message);
}

KXmessage stand_in::received() {
  EXPECT_TRUE(is_readable(data.fd())) << name;
  return data.receive_message();
}

void stand_in::answer(const KXmessage& request, msg_type_e type,
                      const std::function<void(KXmessage&)>& fill) const {
  const msg_header_t& asked = *request.m_header;
  KXmessage message =
      make_message(ntohl(asked.src_siid), ntohl(asked.dst_siid), type, asked.cmd, ntohl(asked.msg_id));
  fill(message);
  send(message);
}

void watcher::await(unsigned char event, const std::string& what) {
  while (m_seen.count({event, what}) == 0) {
    const KXmessage told = received();
    if (told.m_header->msg_type == MSG_NONE) return;  // none has come in time
    for (std::string subject : {"component", "service"}) {
      told >> subject;
      m_seen.emplace(told.m_header->cmd, subject);
    }
  }
}

void bus_with_core::SetUp() {
  core = std::make_unique<run>("kxcore");
  ASSERT_TRUE(comes_true([] { return is_bound("/tmp/kxcore/kxcore-d"); }));
  stand_in("early").leave();  // the core answers when it knows the pids of senders
}

void bus_with_core::TearDown() {
  EXPECT_EQ("kxcore kxcore-d", files());
  if (core != nullptr) end_core(SIGKILL);
}

void bus_with_core::end_core(int signal) {
  core->end(signal);
  core.reset();
}
