// Shows: a component that uses services. sysmon-watch asks sysmon what standard input tells it to, at once or
// later, and receives the load signal twice. It may be started before sysmon.
#include <arpa/inet.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "KXinterface.h"
#include "KXproxy.h"
#include "program.h"
#include "services.h"

namespace {

// The load that a signal carries. The subscribers of one component receive the same message object one after
// the other, its read cursor where the one before left it: hence the step back to the start.
unsigned int read_load(const KXmessage& signal) {
  unsigned int load = 0;
  signal.pos = 0;
  signal >> load;
  return load;
}

std::string read_text(const KXmessage& message) {
  std::string text;
  message >> text;
  return text;
}

// The first subscriber of the signal.
class load_printer : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;  // overriding one overload would hide the other

  void process_message(KXmessage& signal) override {
    const unsigned int load = read_load(signal);
    std::printf("signal: load %u.%02u\n", load / 100, load % 100);
  }
};

// The second.
class load_range : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& signal) override {
    const unsigned int load = read_load(signal);
    m_lowest = m_samples == 0 ? load : std::min(m_lowest, load);
    m_highest = std::max(m_highest, load);
    ++m_samples;
  }

  void report() const {
    if (m_samples == 0) return;
    std::printf("signals received: %u, load %u.%02u to %u.%02u\n", m_samples, m_lowest / 100, m_lowest % 100,
                m_highest / 100, m_highest % 100);
  }

 private:
  unsigned int m_samples = 0;
  unsigned int m_lowest = 0;
  unsigned int m_highest = 0;
};

// The user of the asynchronous function: the event loop hands it the responses.
class checksum_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& response) override { m_reply_interface->process_reply(response); }
};

// The descriptor by which the event loop watches standard input. A pipe reports POLLHUP once its writer has
// closed it, even with data unread, and then the loop does not serve it. The epoll descriptor around it
// reports nothing but that there is something to read, be it the end. A plain file refuses epoll and never
// hangs up.
int watchable_input() {
  const int watch = epoll_create1(EPOLL_CLOEXEC);
  epoll_event readable = {};
  readable.events = EPOLLIN;
  if (epoll_ctl(watch, EPOLL_CTL_ADD, STDIN_FILENO, &readable) == 0) return watch;
  close(watch);
  return STDIN_FILENO;
}

class watcher : public KXinterface, public KXproxyReplyInterface {
 public:
  explicit watcher(KXcomponent& component) : m_component(component) {
    the_watcher = this;
    component.add_interface(this);
    component.add_close_cb(unsubscribe);
  }

  // For when an exception ended start; else the component has stopped before, and nothing happens.
  ~watcher() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {
    m_missing = {[this] { return m_metric.subscribe_synchronous(metric_service); },
                 [this] { return m_checksum.subscribe_asynchronous(checksum_service, this); },
                 [this] { return m_printer.subscribe_signal(load_service); },
                 [this] { return m_range.subscribe_signal(load_service); }};
  }

  void startup_phase1(KXcomponent*) override {}

  void startup_phase2(KXcomponent*) override {
    if (subscribe()) return;
    std::puts("waiting for sysmon ...");
    m_component.add_msec_timer(1000, this, static_subscribe, 0);
  }

  void process_reply(KXmessage& response) override {
    const auto request = m_asked.find(ntohl(response.m_header->msg_id));
    if (request == m_asked.end()) return;
    if (response.m_header->msg_type == MSG_ERR) {
      std::printf("sum: %s: refused, %s\n", request->second.c_str(), read_text(response).c_str());
    } else {
      unsigned int crc = 0;
      unsigned long long bytes = 0;
      response >> crc;
      response >> bytes;
      std::printf("sum: %u %llu %s\n", crc, bytes, request->second.c_str());
    }
    m_asked.erase(request);
    end_if_done();
  }

 private:
  static int static_subscribe(void* context, int /*cookie*/) {
    return static_cast<watcher*>(context)->subscribe() ? -1 : 0;
  }

  // Makes the subscriptions that are missing, and then begins to take commands; false while kxcore refuses
  // one, because nobody offers the service yet.
  bool subscribe() {
    try {
      for (; !m_missing.empty(); m_missing.pop_front())
        if (m_missing.front()() == 0) throw std::runtime_error("kxcore cannot be reached");
    } catch (const KXerror::error_e& error) {
      if (error != KXerror::ERR_ERROR_REPLY) throw;
      return false;
    }
    std::puts("connected with sysmon");
    m_component.add_socket_descriptor(watchable_input(), this, static_read_input);
    return true;
  }

  static int static_read_input(void* context, int /*fd*/) {
    return static_cast<watcher*>(context)->read_input();
  }

  // Reads once, so that it never blocks. At the end of the input the result, -1, takes the descriptor away.
  int read_input() {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    m_input_ended = count <= 0;
    m_input += m_input_ended ? "\n" : std::string(bytes, static_cast<std::size_t>(count));
    for (std::size_t end; (end = m_input.find('\n')) != std::string::npos; m_input.erase(0, end + 1))
      run_command(m_input.substr(0, end));
    end_if_done();
    return m_input_ended ? -1 : 0;
  }

  void run_command(const std::string& line) {
    if (line == "quit") {
      m_component.sendKillMsgToSelf();
    } else if (line.rfind("sum ", 0) == 0) {
      sum_file(std::filesystem::absolute(line.substr(4)).string());
    } else if (!line.empty()) {
      ask_metric(line);
    }
  }

  // Blocks for the response, which takes the request's place in the message.
  void ask_metric(const std::string& name) {
    KXmessage message;
    message.m_header->cmd = CMD_READ_METRIC;
    message << name;
    if (m_metric.proxy_send(message) == 0) {
      std::printf("%s: no response\n", name.c_str());
      return;
    }
    const bool refused = message.m_header->msg_type == MSG_ERR;
    std::printf("%s: %s%s\n", name.c_str(), refused ? "refused, " : "", read_text(message).c_str());
  }

  // Notes the id of the request: the response, some time later, carries it.
  void sum_file(const std::string& path) {
    KXmessage message;
    message.m_header->cmd = CMD_SUM_FILE;
    message << path;
    if (m_checksum.proxy_send(message) == 1) m_asked[ntohl(message.m_header->msg_id)] = path;
  }

  void end_if_done() {
    if (m_input_ended && m_asked.empty()) m_component.sendKillMsgToSelf();
  }

  // The close callback, by which stop begins: kxcore can still be told, and once the component's table does
  // not refer to the proxies any more they may be destroyed.
  static int unsubscribe() {
    the_watcher->m_metric.disconnect(true);
    the_watcher->m_checksum.disconnect(true);
    the_watcher->m_printer.disconnect(true);
    the_watcher->m_range.disconnect(true);
    the_watcher->m_range.report();
    return 0;
  }

  static inline watcher* the_watcher = nullptr;

  KXcomponent& m_component;
  KXproxy m_metric{&m_component};
  checksum_proxy m_checksum{&m_component};
  load_printer m_printer{&m_component};
  load_range m_range{&m_component};
  std::deque<std::function<int()>> m_missing;
  std::map<unsigned int, std::string> m_asked;  // the files, by the ids of the requests
  std::string m_input;
  bool m_input_ended = false;
};

constexpr char help[] =
    "usage: sysmon-watch\n"
    "Prints sysmon's load signal. When sysmon is there it takes commands, one a line, from standard input:\n"
    "  load, memory, uptime  a figure of the machine\n"
    "  sum FILE              the file's checksum, as `cksum FILE` prints it\n"
    "  quit                  ends it; so does the end of the input, when all is answered\n";

}  // namespace

int main(int argc, char** argv) { return run<watcher>("sysmon-watch", help, argc, argv); }
