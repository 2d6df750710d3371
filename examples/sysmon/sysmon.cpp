// Shows: a component that serves. sysmon offers this machine's own figures by a service of each kind: a
// function that answers at once, a function that answers later from the event loop, and a signal.
#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>

#include "KXinterface.h"
#include "KXstub.h"
#include "cksum.h"
#include "program.h"
#include "services.h"

namespace {

// The synchronous function: it responds before process_message returns, for the requester blocks.
class metric_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;  // overriding one overload would hide the other

  void process_message(KXmessage& request) override {
    std::string name;
    request >> name;
    const std::string figure = read_figure(name);
    KXmessage reply = reply_to(*request.m_header, figure.empty() ? MSG_ERR : MSG_RSP);
    reply << (figure.empty() ? "it is none of load, memory, uptime" : figure);
    connection_send(reply);
  }

  // Who asks the bus for the description of the service sees names in place of numbers.
  const char* get_xml_comment() const override {
    return R"(<interface>
  <method cmd="1" name="read">
    <arg direction="in" name="metric" type="s"/>
    <arg direction="out" name="value" type="s"/>
  </method>
</interface>)";
  }

 private:
  static std::string read_figure(const std::string& name) {
    if (name == "load") return word_behind("", "/proc/loadavg");
    if (name == "memory") return word_behind("MemAvailable:", "/proc/meminfo") + " kB available";
    if (name == "uptime") return word_behind("", "/proc/uptime") + " seconds";
    return "";
  }

  // The word behind `key`, the first one without a key.
  static std::string word_behind(const char* key, const char* path) {
    std::ifstream file(path);
    std::string word;
    while (word != key && file >> word) {
    }
    file >> word;
    return word;
  }
};

// The asynchronous function: each request becomes a job. The event loop advances the jobs by turns, a slice
// at a time, and serves its messages and descriptors in between.
class checksum_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;

  void process_message(KXmessage& request) override {
    std::string path;
    request >> path;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) return refuse(*request.m_header, strerror(errno));
    // Opening a pipe can block, and a device need not end.
    if (!S_ISREG(status.st_mode)) return refuse(*request.m_header, "not a regular file");
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) return refuse(*request.m_header, strerror(errno));
    if (m_jobs.empty()) m_component->add_msec_timer(0, this, static_advance, 0);
    m_jobs.push_back({*request.m_header, std::move(file), cksum()});
  }

  const char* get_xml_comment() const override {
    return R"(<interface>
  <method cmd="2" name="sum">
    <arg direction="in" name="path" type="s"/>
    <arg direction="out" name="crc" type="u"/>
    <arg direction="out" name="size" type="t" unit="bytes"/>
  </method>
</interface>)";
  }

  void refuse_pending() {
    for (const job& pending : m_jobs)
      refuse(pending.request, "sysmon is ending");
    m_jobs.clear();
  }

 private:
  struct job {
    msg_header_t request;
    std::ifstream file;
    cksum sum;
  };

  static int static_advance(void* context, int /*cookie*/) {
    return static_cast<checksum_stub*>(context)->advance();
  }

  // One slice of the first job, which then goes behind the others. Without a job the timer ends.
  int advance() {
    job& current = m_jobs.front();
    current.file.read(m_slice, sizeof m_slice);
    for (std::streamsize i = 0; i < current.file.gcount(); ++i)
      current.sum.add(static_cast<unsigned char>(m_slice[i]));
    if (current.file.good()) {
      m_jobs.splice(m_jobs.end(), m_jobs, m_jobs.begin());
      return 0;
    }
    respond(current);
    m_jobs.pop_front();
    return m_jobs.empty() ? -1 : 0;
  }

  void refuse(const msg_header_t& request, const char* reason) {
    KXmessage reply = reply_to(request, MSG_ERR);
    reply << reason;
    connection_send(reply);
  }

  void respond(const job& done) {
    if (done.file.bad()) return refuse(done.request, strerror(EIO));
    KXmessage reply = reply_to(done.request, MSG_RSP);
    reply << done.sum.crc();
    reply << done.sum.bytes();
    connection_send(reply);
  }

  std::list<job> m_jobs;
  char m_slice[65536];
};

// The signal: one message, which kxcore passes on to every component that has subscribed.
class load_stub : public KXstub {
 public:
  using KXstub::KXstub;

  const char* get_xml_comment() const override {
    return R"(<interface>
  <signal cmd="3" name="load">
    <arg name="load" type="u" unit="1/100"/>
  </signal>
</interface>)";
  }

  bool is_registered() const { return m_siid != no_siid; }
  void start() { m_component->add_msec_timer(1000, this, static_send, 0); }

 private:
  // The timer repeats, for its handler does not return -1.
  static int static_send(void* context, int /*cookie*/) {
    static_cast<load_stub*>(context)->send();
    return 0;
  }

  void send() {
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    KXmessage signal;
    signal.m_header->dst_siid = htonl(m_siid);  // its own siid stands for the subscribers
    signal.m_header->msg_type = MSG_SIG;
    signal.m_header->cmd = CMD_LOAD_SAMPLE;
    signal << static_cast<unsigned int>(std::lround(load * 100));
    connection_send(signal);
  }
};

class sysmon : public KXinterface {
 public:
  explicit sysmon(KXcomponent& component) : m_component(component) {
    the_sysmon = this;
    component.add_interface(this);
    component.add_close_cb(withdraw);
  }

  // For when an exception ended start; else the component has stopped before, and nothing happens.
  ~sysmon() override { m_component.stop(); }

  void startup_phase0(KXcomponent*) override {}

  void startup_phase1(KXcomponent*) override {
    m_metric.register_synchronous(metric_service);
    m_checksum.register_asynchronous(checksum_service);
    m_load.register_signal(load_service);
    if (!m_load.is_registered()) throw std::runtime_error("kxcore cannot be reached");
  }

  void startup_phase2(KXcomponent*) override {
    m_load.start();
    std::puts("ready");
  }

 private:
  // The close callback, by which stop begins: kxcore can still be told, and once the component's table does
  // not refer to the stubs any more they may be destroyed.
  static int withdraw() {
    the_sysmon->m_checksum.refuse_pending();
    the_sysmon->m_metric.disconnect(true);
    the_sysmon->m_checksum.disconnect(true);
    the_sysmon->m_load.disconnect(true);
    std::puts("services withdrawn");
    return 0;
  }

  static inline sysmon* the_sysmon = nullptr;

  KXcomponent& m_component;
  metric_stub m_metric{&m_component};
  checksum_stub m_checksum{&m_component};
  load_stub m_load{&m_component};
};

constexpr char help[] =
    "usage: sysmon\n"
    "Serves figures of this machine on the kestrix bus, for sysmon-watch, until SIGTERM or SIGINT ends it.\n";

}  // namespace

int main(int argc, char** argv) { return run<sysmon>("sysmon", help, argc, argv); }
