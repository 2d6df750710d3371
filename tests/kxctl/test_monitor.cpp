// kxctl at the monitor's socket of a core, as a user sees it.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "child_process.h"
#include "kxctl_run.h"
#include "payload.h"
#include "pcapng.h"
#include "socket_address.h"
#include "told.h"
#include "unique_fd.h"
#include "values.h"

namespace {

namespace fs = std::filesystem;

constexpr char directory[] = "/tmp/kxcore/.kxcore";
constexpr char monitor_path[] = "/tmp/kxcore/.kxcore/monitor";
constexpr char recording[] = "/tmp/kxcore/file.pcapng";
constexpr char core_path[] = "/tmp/kxcore/kxcore";

struct ended {
  int status;
  std::string out;
  std::string error;
};

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A program that runs in the background.
class program {
 public:
  explicit program(const std::string& arguments, const std::string& around = "exec")
      : m_process(
            {"sh", "-c",
             around + ' ' + kxctl_in_shell() + ' ' + arguments + " >/tmp/kxcore/out 2>/tmp/kxcore/error"}) {}

  pid_t pid() const { return m_process.pid(); }

  ended end(int signal = 0) {
    const int status = m_process.end(signal);
    return {status, content_of("/tmp/kxcore/out"), content_of("/tmp/kxcore/error")};
  }

 private:
  child_process m_process;
};

ended after(const std::string& arguments) { return program(arguments).end(); }

// The core's side of the socket.
class core_side {
 public:
  core_side() : m_listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    const timeval patience = {10, 0};
    setsockopt(m_listener.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    fs::create_directory(directory);
    unlink(monitor_path);
    const sockaddr_un address = socket_address(monitor_path);
    if (bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listener.get(), 8) != 0)
      throw std::system_error(errno, std::generic_category(), monitor_path);
  }
  ~core_side() { fs::remove_all(directory); }
  core_side(const core_side&) = delete;
  core_side& operator=(const core_side&) = delete;

  // Lets a monitor in; what it says first.
  decoded_payload accept() {
    m_socket = unique_fd(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const std::string hello = receive();
    return decode(reinterpret_cast<const unsigned char*>(hello.data()), hello.size());
  }
  std::string receive() {
    std::array<char, 4096> bytes{};
    const ssize_t size = recv(m_socket.get(), bytes.data(), bytes.size(), 0);
    return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }
  void send(const told& what) {
    const std::string bytes = what.bytes();
    ::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void close() { m_socket = unique_fd(); }

 private:
  unique_fd m_listener;
  unique_fd m_socket;
};

class monitor_test : public testing::Test {
 protected:
  monitor_test() {
    m_core.emplace();
    fs::remove(recording);
  }

  // Runs kxctl with a core that says this, and nothing more as long as it runs.
  ended with(const std::vector<told>& records, const std::string& arguments) {
    program tool(arguments);
    m_hello = m_core->accept();
    for (const told& each : records)
      m_core->send(each);
    return tool.end();
  }
  // The same, with a signal when kxctl has shown something, and a core that answers the question for a mark.
  ended until_signal(const std::vector<told>& records, const std::vector<told>& late,
                     const std::string& arguments, int signal = SIGINT) {
    program tool(arguments);
    m_core->accept();
    for (const told& each : records)
      m_core->send(each);
    while (content_of("/tmp/kxcore/out").empty())
      std::this_thread::yield();
    std::thread answer([&] {
      m_core->receive();
      for (const told& each : late)
        m_core->send(each);
    });
    const ended result = tool.end(signal);
    answer.join();
    return result;
  }

  std::optional<core_side> m_core;
  decoded_payload m_hello;
};

TEST_F(monitor_test, shows_what_comes) {
  EXPECT_EQ(with({told{}}, "--no-header monitor -n 1").out.substr(15),
            "  watch         sysmon        REQ             sysmon.metric     1\n");
}

TEST_F(monitor_test, ends_after_as_many_as_were_wanted) {
  EXPECT_EQ(with({told{}, told{}}, "monitor -n 2").status, 0);
}

TEST_F(monitor_test, greets_with_the_version_and_the_patterns) {
  with({told{}}, "monitor -n 1 'service=sysmon.* component=w*'");
  EXPECT_EQ(m_hello.text(), "1 \"w*\" \"sysmon.*\"");
}

TEST_F(monitor_test, ends_at_its_time) {
  program tool("--timeout 0.05 monitor");
  m_core->accept();
  m_core->send(told{});
  m_core->receive();  // it asks for what is still on its way
  m_core->send(make_told(RECORD_MARK));
  EXPECT_EQ(tool.end().status, 124);
}

TEST_F(monitor_test, ends_when_nobody_reads_any_more) {
  program tool("monitor | true", "");
  m_core->accept();
  m_core->send(told{});
  EXPECT_EQ(tool.end().status, 0);  // that of the reader: it has ended at all
}

TEST_F(monitor_test, ends_at_its_time_with_a_core_that_says_nothing) {
  EXPECT_EQ(with({}, "--timeout 0.05 monitor").error, "kxctl: kxcore does not answer\n");
}

TEST_F(monitor_test, shows_what_has_come_before_the_core_ended) {
  program tool("--json monitor");
  m_core->accept();
  kill(tool.pid(), SIGSTOP);  // so that it finds both
  m_core->send(told{});
  m_core->close();
  kill(tool.pid(), SIGCONT);
  EXPECT_EQ(nlohmann::json::parse(tool.end().out)["service"], "sysmon.metric");
}

TEST_F(monitor_test, does_not_show_its_own_traffic) {
  program tool("--no-header monitor -n 1");
  told own;
  own.from = "kxctl-" + std::to_string(tool.pid());
  m_core->accept();
  m_core->send(own);
  m_core->send(told{});
  EXPECT_EQ(tool.end().out.find("kxctl"), std::string::npos);
}

TEST_F(monitor_test, ends_with_the_core) {
  program tool("--json monitor");
  m_core->accept();
  m_core->send(told{});
  m_core->close();
  EXPECT_EQ(tool.end().error, "kxctl: kxcore has ended\n");
}

TEST_F(monitor_test, tells_why_it_is_refused) {
  program tool("monitor");
  m_core->accept();
  told refusal = make_told(RECORD_REFUSED);
  refusal.reason = "this kxcore speaks version 2";
  m_core->send(refusal);
  m_core->close();
  EXPECT_EQ(tool.end().error, "kxctl: kxcore refuses a monitor: this kxcore speaks version 2\n");
}

TEST_F(monitor_test, tells_that_it_is_not_let_in) {
  program tool("monitor");
  m_core->accept();
  m_core->close();
  EXPECT_EQ(tool.end().error, "kxctl: kxcore lets no monitor in: it has as many as it takes, or ends\n");
}

class stopped : public monitor_test, public testing::WithParamInterface<int> {};

TEST_P(stopped, ends_with_130) {
  EXPECT_EQ(until_signal({told{}}, {make_told(RECORD_MARK)}, "monitor", GetParam()).status, 130);
}

INSTANTIATE_TEST_SUITE_P(monitor_test, stopped, testing::Values(SIGINT, SIGTERM));

TEST_F(monitor_test, shows_what_was_still_on_its_way) {
  told late;
  late.service = "late.one";
  const ended result = until_signal({told{}}, {late, make_told(RECORD_MARK)}, "monitor");
  EXPECT_NE(result.out.find("late.one"), std::string::npos) << result.out;
}

TEST_F(monitor_test, tells_the_losses_up_to_the_end) {
  told mark = make_told(RECORD_MARK);
  mark.lost = 5;
  EXPECT_EQ(until_signal({told{}}, {mark}, "monitor").error,
            "kxctl: 5 records were lost: more came than was read\n");
}

TEST_F(monitor_test, asks_again_when_the_mark_was_lost) {
  program tool("monitor");
  m_core->accept();
  m_core->send(told{});
  while (content_of("/tmp/kxcore/out").empty())
    std::this_thread::yield();
  std::string questions;
  std::thread core([&] {
    questions = m_core->receive();
    questions += m_core->receive();
    m_core->send(make_told(RECORD_MARK));
  });
  tool.end(SIGINT);
  core.join();
  EXPECT_EQ(questions.size(), 2U);
}

TEST_F(monitor_test, refuses_a_bad_filter_before_it_connects) {
  EXPECT_EQ(after("monitor type=x").status, 2);
}

TEST_F(monitor_test, says_that_standard_output_takes_no_more) {
  program tool("monitor -n 1 >/dev/full; true", "f() { \"$@\"; echo $? >/tmp/kxcore/status; }; f");
  m_core->accept();
  m_core->send(told{});
  tool.end();
  EXPECT_EQ(content_of("/tmp/kxcore/status"), "1\n");
}

class captured : public monitor_test {
 protected:
  static std::vector<std::string> packets(const std::string& path = recording) {
    std::ifstream from(path, std::ios::binary);
    pcapng_reader reader(from, path);
    std::vector<std::string> all;
    for (std::string packet; reader.next(packet);)
      all.push_back(packet);
    return all;
  }
  static std::uint32_t lost_in(const std::string& packet) { return entry::parse(packet)->head.lost; }
};

TEST_F(captured, has_what_came) {
  with({told{}}, "capture -w /tmp/kxcore/file.pcapng -n 1");
  EXPECT_EQ(packets(), std::vector<std::string>{told{}.bytes()});
}

TEST_F(captured, has_the_state_of_the_bus_whatever_is_wanted) {
  with({make_told(RECORD_COMPONENTS), told{}}, "capture -w /tmp/kxcore/file.pcapng -n 1 cmd=1");
  EXPECT_EQ(packets().size(), 2U);
}

TEST_F(captured, has_only_what_is_wanted) {
  told other;
  other.cmd = 9;
  with({other, told{}}, "capture -w /tmp/kxcore/file.pcapng -n 1 cmd=1");
  EXPECT_EQ(packets().size(), 1U);
}

TEST_F(captured, tells_the_losses_before_a_record_that_is_left_out) {
  told other;
  other.cmd = 9;
  other.lost = 0x01020304;
  with({other, told{}}, "capture -w /tmp/kxcore/file.pcapng -n 1 cmd=1");
  EXPECT_EQ(lost_in(packets().at(0)), 0x01020304U);
}

TEST_F(captured, tells_losses_once) {
  told first;
  first.lost = 3;
  with({first, told{}}, "capture -w /tmp/kxcore/file.pcapng -n 2");
  EXPECT_EQ(lost_in(packets().at(1)), 0U);
}

TEST_F(captured, says_what_it_has) {
  EXPECT_EQ(with({told{}}, "capture -w /tmp/kxcore/file.pcapng -n 1").error,
            "kxctl: 1 records in /tmp/kxcore/file.pcapng\n");
}

TEST_F(captured, goes_to_standard_output_as_it_comes) {
  program tool("capture -w - | head -c 200", "");
  m_core->accept();
  m_core->send(told{});
  EXPECT_EQ(tool.end().out.size(), 200U);
}

TEST_F(captured, is_readable_when_it_is_killed) {
  program tool("capture -w /tmp/kxcore/file.pcapng");
  m_core->accept();
  m_core->send(told{});
  while (content_of(recording).size() <= pcapng_beginning().size())
    std::this_thread::yield();
  tool.end(SIGKILL);
  EXPECT_EQ(packets().size(), 1U);
}

TEST_F(captured, does_not_ask_the_core_to_leave_out_what_the_trigger_may_want) {
  with({told{}}, "capture -w /tmp/kxcore/file.pcapng --ring 8M --on type=REQ -n 1 service=other");
  EXPECT_EQ(m_hello.text(), "1 \"\" \"\"");
}

TEST_F(monitor_test, refuses_captures_that_make_no_sense) {
  const struct {
    const char *arguments, *error;
  } rows[] = {
      {"capture --ring 8M",
       "kxctl: --ring and --on belong together: what is kept, and what makes it be written\n"},
      {"capture -w - --ring 8M --on type=ERR", "kxctl: --ring and --rotate want a file: name it with -w\n"},
      {"capture -w - --rotate 10M:5", "kxctl: --ring and --rotate want a file: name it with -w\n"},
      {"capture -w /nowhere/x", "kxctl: /nowhere/x: No such file or directory\n"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(with({told{}}, row.arguments).error, row.error);
}

// A recording of one request, as `kxctl show` shows it.
class recorded : public testing::Test {
 protected:
  recorded() { write(whole()); }
  static std::string whole() {
    std::string bytes = pcapng_beginning();
    append_packet(bytes, *parsed(told{}));
    return bytes;
  }
  static void write(const std::string& bytes) { std::ofstream(recording, std::ios::binary) << bytes; }
  static ended show(const std::string& arguments = "") {
    return after("--no-header show " + std::string(recording) + ' ' + arguments);
  }
};

struct way {
  const char* arguments;
  const char* beginning;  // of what is shown
};

class ways : public recorded, public testing::WithParamInterface<way> {};

TEST_P(ways, show_it) {
  const std::string out = show(GetParam().arguments).out;
  EXPECT_EQ(out.substr(0, std::string(GetParam().beginning).size()), GetParam().beginning)
      << GetParam().arguments;
}

INSTANTIATE_TEST_SUITE_P(
    recorded, ways,
    testing::Values(way{"--sequence", "sequenceDiagram\n"}, way{"--sequence mermaid", "sequenceDiagram\n"},
                    way{"--sequence svg", "<svg "}, way{"--perfetto", "{\"displayTimeUnit\""},
                    way{"--stats", "sysmon.metric   "}, way{"--stats --json", "{\"calls\":1,"},
                    way{"--json", "{\"cmd\":1,"}, way{"--stats --json cmd=2", ""}));

TEST_F(recorded, is_shown_from_standard_input) {
  EXPECT_EQ(after("show - --sequence <" + std::string(recording)).out.substr(0, 16), "sequenceDiagram\n");
}

TEST_F(recorded, is_shown_as_far_as_it_is_whole) {
  write(whole() + "\x06");
  EXPECT_NE(show("--sequence").out.find("p0->>p1"), std::string::npos);
}

TEST_F(recorded, says_where_it_breaks_off) {
  write(whole() + "\x06");
  EXPECT_EQ(show().error, "kxctl: " + std::string(recording) + ": it breaks off, in the block at byte " +
                              std::to_string(whole().size()) + '\n');
}

TEST_F(recorded, ends_with_1_where_it_breaks_off) {
  write(whole() + "\x06");
  EXPECT_EQ(show().status, 1);
}

TEST_F(recorded, is_missed_when_there_is_none) {
  fs::remove(recording);
  EXPECT_EQ(show().error, "kxctl: " + std::string(recording) + ": No such file or directory\n");
}

TEST_F(recorded, is_not_shown_in_two_ways) { EXPECT_EQ(show("--stats --perfetto").status, 2); }

TEST(without_a_core, a_monitor_says_what_to_do) {
  unlink(core_path);
  EXPECT_EQ(after("monitor").error, "kxctl: no kxcore runs here: start one, or see `kxctl doctor`\n");
}

TEST(without_a_core, a_monitor_ends_with_3) {
  unlink(core_path);
  EXPECT_EQ(after("monitor").status, 3);
}

TEST(with_a_core_without_monitors, a_monitor_ends_with_4) {
  std::ofstream(core_path) << "";
  EXPECT_EQ(after("monitor").status, 4);
  unlink(core_path);
}

TEST(with_a_core_that_has_died, a_monitor_says_what_to_do) {
  fs::create_directory(directory);
  const unique_fd left(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const sockaddr_un address = socket_address(monitor_path);
  bind(left.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  EXPECT_EQ(after("monitor").error, "kxctl: no kxcore runs here: start one, or see `kxctl doctor`\n");
  fs::remove_all(directory);
}

}  // namespace
