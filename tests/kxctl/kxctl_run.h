// The program kxctl on a bus with a core, and the components that it meets there.
#ifndef TESTS_KXCTL_RUN_H
#define TESTS_KXCTL_RUN_H

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "child_process.h"
#include "probe.h"
#include "unique_fd.h"

// A program that runs, and what it has written.
class run {
 public:
  // Its words are separated by spaces, with '~' for a space within one. `prepare` runs in the process before.
  explicit run(const std::string& line, const std::function<void()>& prepare = nullptr);

  pid_t pid() const { return m_process.pid(); }
  bool has_ended() const;  // it is not waited for

  // Of kxctl: the name of its component.
  const std::string& name() const { return m_name; }
  std::string out() const;
  std::string err() const;

  // Sends it a signal, or none, and waits for its end.
  int end(int signal = 0);

 private:
  unique_fd m_out, m_err;
  child_process m_process;
  const std::string m_name;
};

// What kxctl ended with: "0: out", or "1: out! err", without newlines at the ends.
std::string ended_with(run& program, int signal = 0);
std::string kxctl(const std::string& line);

// What a shell runs as kxctl: behind its emulator when it is built for another processor.
std::string kxctl_in_shell();

// Waits until it is so; false when that takes too long.
bool comes_true(const std::function<bool()>& is_so);

// The names of the sockets in the bus directory.
std::string files();

// A component made of raw sockets, registered with the core, that offers and uses services as a test has it.
class stand_in {
 public:
  explicit stand_in(const std::string& name);

  // Whether the core grants it; the siid is then in `siid`, of a proxy also that of the service.
  bool ask(mgmt_cmd_e cmd, const std::string& service, unsigned int kind = 0,
           const std::string& comment = "none");
  void tell(mgmt_cmd_e cmd, unsigned int number);
  void leave();

  void send(KXmessage message) const { data.send("/tmp/kxcore/kxcore-d", message); }
  KXmessage received();  // the next data message; waits for it
  void answer(const KXmessage& request, msg_type_e type, const std::function<void(KXmessage&)>& fill) const;

  const std::string name;
  const raw_socket mgmt, data;
  unsigned int siid = 0, service_siid = 0, first_id = 0;

 private:
  KXmessage reply();
  unsigned int m_last_id = 0;
};

// Sees what happens on the bus.
class watcher : public stand_in {
 public:
  watcher() : stand_in("watcher") { EXPECT_TRUE(ask(CMD_SUB_SIGNAL, "kxcore.events")); }

  // Waits until this has happened to a component or service.
  void await(unsigned char event, const std::string& what);

 private:
  std::set<std::pair<unsigned char, std::string>> m_seen;
};

// Nothing is left on the bus at the end.
class bus_with_core : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  void end_core(int signal);

  std::unique_ptr<run> core;
};

#endif
