// The program kxcore between real processes.
#include <fcntl.h>
#include <fnmatch.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "core_probe.h"

namespace {

constexpr int patience_ms = 10'000;

std::string read_file(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

testing::AssertionResult matches(const std::string& text, const std::string& pattern) {
  if (fnmatch(pattern.c_str(), text.c_str(), 0) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << text << " does not match " << pattern;
}
testing::AssertionResult has(const std::string& path, const std::string& pattern) {
  return matches(read_file(path), pattern);
}

// The words are separated by bars: kxcore, behind its emulator when it is built for another processor.
std::string core_line() {
  std::string line = KXCORE_COMMAND;
  std::replace(line.begin(), line.end(), '|', ' ');
  return line;
}
std::vector<std::string> core_command() {
  std::istringstream words(core_line());
  return {std::istream_iterator<std::string>(words), {}};
}

// Becomes kxcore, with what `line` of the shell adds to its command.
void become_core(const std::string& line) {
  execlp("sh", "sh", "-c", ("exec " + core_line() + " " + line).c_str(), nullptr);
  _exit(127);
}

// Lets this process see an empty directory in this one's place.
void mount_over(const char* directory) {
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", directory, "tmpfs", 0, nullptr) != 0)
    _exit(1);
}

class kxcore : public testing::Test {
 protected:
  void TearDown() override {
    if (program != nullptr && !program->has_ended()) program->end(SIGKILL);
  }
  void start(const std::function<void()>& prepare, const std::string& line) {
    program = std::make_unique<child_process>([&] { prepare(), become_core(line); });
    ASSERT_TRUE(wait_until_bound(*program, fake_core::data_path));
  }
  // What the core answers; waits for it.
  std::string ask(raw_component& from, mgmt_cmd_e cmd = CMD_REG_COMPONENT, const std::string& service = "") {
    from.manage(cmd, service);
    pollfd entry = {from.mgmt.fd(), POLLIN, 0};
    EXPECT_EQ(1, poll(&entry, 1, patience_ms));
    return from.arrived(from.mgmt);
  }

  std::unique_ptr<child_process> program;
};

class running_core : public kxcore {
 protected:
  void SetUp() override {
    start([] {}, "");
  }
};

}  // namespace

TEST(command_line, decides_on_the_output_and_the_exit_status) {
  const struct {
    std::string arguments;
    int status;
    std::string out, err;  // patterns of the shell
  } rows[] = {
      {"--help", 0, "usage: kxcore ?--verbose? ?--monitor-group GROUP?\n*", ""},
      {"-h", 0, "usage: kxcore ?--verbose? ?--monitor-group GROUP?\n*", ""},
      {"--version", 0, "kxcore [0-9]*.*.*\n", ""},
      {"--wrong", 2, "", "*unrecognized option '--wrong'\nusage: kxcore*"},
      {"-v extra", 2, "", "kxcore: unexpected argument 'extra'\nusage: kxcore*"},
      {"--monitor-group no-such", 2, "", "kxcore: there is no group 'no-such'\nusage: kxcore*"},
      {"", 1, "", "kxcore: /tmp/kxcore/kxcore is not a socket that a kxcore has left: remove it\n"},
      {"", 1, "", "kxcore: /tmp/kxcore/kxcore-d is not a socket that a kxcore has left: remove it\n"}};
  for (const auto& row : rows) {
    const std::string blocked =
        row.err.find("-d is") != std::string::npos ? fake_core::data_path : fake_core::mgmt_path;
    unlink(blocked.c_str());  // what a core has left that was killed
    std::filesystem::create_directory(blocked);
    const std::string command = core_line() + " " + row.arguments + " >/tmp/kxcore/out 2>/tmp/kxcore/err";
    EXPECT_EQ(row.status, WEXITSTATUS(std::system(command.c_str()))) << row.arguments;
    EXPECT_TRUE(has("/tmp/kxcore/out", row.out)) << row.arguments;
    EXPECT_TRUE(has("/tmp/kxcore/err", row.err)) << row.arguments;
    std::filesystem::remove(blocked);
  }
}

TEST_F(kxcore, tells_at_its_start_that_it_is_ready_and_shows_all_when_it_is_verbose) {
  for (const std::string option : {"-v", "--verbose", ""}) {
    start([] {}, option + " >/tmp/kxcore/out 2>/tmp/kxcore/err");
    raw_component client("client");
    EXPECT_EQ("RSP 101", ask(client));
    EXPECT_EQ("ERR 102 (nobody offers 'x')", ask(client, CMD_SUB_FUNCTION, "x"));
    program->end(SIGKILL);
    const std::string refusal = "refused SUB-FUNCTION of client (1 so far): nobody offers 'x'\n";
    const bool is_permitted = geteuid() == 0 && longer_queues().refusal().empty();
    const std::string begin = is_permitted ? "" : "*its sockets have short queues*\n";
    const std::string registered = "kxcore is ready\nclient * registered with /tmp/kxcore/client-d\n";
    EXPECT_TRUE(has("/tmp/kxcore/out", option.empty() ? "" : begin + registered + refusal));
    EXPECT_TRUE(has("/tmp/kxcore/err", option.empty() ? begin + "kxcore: " + refusal : ""));
  }
}

TEST_F(kxcore, says_why_its_queues_are_short) {
  if (geteuid() != 0 || !longer_queues().refusal().empty())
    GTEST_SKIP() << "only root has longer queues, and can give its rights up";
  struct stat before = {};
  EXPECT_EQ(0, stat("/tmp/kxcore", &before));
  EXPECT_EQ(0, chmod("/tmp/kxcore", 0777));
  for (const char* const left : {fake_core::mgmt_path, fake_core::data_path, "/tmp/kxcore/.kxcore.lock"})
    unlink(left);
  std::filesystem::remove_all("/tmp/kxcore/.kxcore");
  const unique_fd err(open("/tmp/kxcore/err", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  start([&] { dup2(err.get(), STDERR_FILENO), setuid(12345) == 0 ? void() : _exit(1); }, "");
  kill(program->pid(), SIGTERM);
  EXPECT_EQ(0, program->end(0));
  EXPECT_EQ(0, chmod("/tmp/kxcore", before.st_mode & 07777));
  EXPECT_EQ(
      "kxcore: its sockets have short queues, senders of many messages at once are held up: cannot enter a "
      "network namespace of their own: Operation not permitted\n",
      read_file("/tmp/kxcore/err"));
}

TEST_F(kxcore, goes_on_when_nobody_can_read_its_lines) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  start([&] { dup2(ends[1], STDERR_FILENO), dup2(ends[1], STDOUT_FILENO), close(ends[0]); }, "-v");
  close(ends[0]), close(ends[1]);
  raw_component client("client");
  for (int times = 0; times < 3; ++times)
    EXPECT_NE("", ask(client));
}

TEST_F(kxcore, writes_no_lines_to_its_own_files_when_it_has_no_streams) {
  for (const std::string option : {"", "--verbose"}) {
    start([] {}, option + " >&- 2>&- <&-");
    raw_component client("client");
    EXPECT_EQ("RSP 101", ask(client));
    EXPECT_EQ("", read_file("/tmp/kxcore/.kxcore.lock"));
    for (const char* const stream : {"0", "1", "2"})
      EXPECT_EQ("/dev/null",
                std::filesystem::read_symlink("/proc/" + std::to_string(program->pid()) + "/fd/" + stream))
          << stream;
    program->end(SIGKILL);
  }
}

TEST_F(kxcore, reaches_components_on_a_system_without_proc) {
  if (core_command().size() > 1) GTEST_SKIP() << "an emulator needs it";
  if (child_process([] { mount_over("/proc"); }).end(0) != 0)
    GTEST_SKIP() << "the system permits no mount namespaces";
  start([] { mount_over("/proc"); }, "2>/tmp/kxcore/err");
  raw_component client("client");
  EXPECT_EQ("RSP 101", ask(client));
}

TEST_F(kxcore, raises_its_limit_of_descriptors) {
  start([] { limit_descriptors(20); }, "");
  std::vector<std::unique_ptr<raw_component>> many;
  for (int i = 0; i < 10; ++i) {
    many.push_back(std::make_unique<raw_component>("member " + std::to_string(i)));
    EXPECT_EQ("RSP 101", ask(*many.back())) << i;
  }
}

TEST_F(running_core, has_queues_longer_than_the_systems) {
  if (geteuid() != 0 || !longer_queues().refusal().empty())
    GTEST_SKIP() << "the system permits the program no network namespaces";
  kill(program->pid(), SIGSTOP);
  siginfo_t stopped = {};
  waitid(P_PID, static_cast<id_t>(program->pid()), &stopped, WSTOPPED);
  for (const char* const path : {fake_core::mgmt_path, fake_core::data_path}) {
    const raw_socket flooder("/tmp/kxcore/flooder");
    int room = 0;
    while (room < 100 && flooder.send(path, std::vector<unsigned char>(1)))
      ++room;
    EXPECT_EQ(100, room) << path;
  }
  kill(program->pid(), SIGCONT);
}

TEST_F(running_core, ends_with_status_1_when_another_process_has_its_place) {
  raw_component client("client");
  EXPECT_EQ("RSP 101", ask(client));
  const raw_socket foreign("/tmp/kxcore/foreign");
  EXPECT_EQ(0, rename(foreign.path().c_str(), fake_core::mgmt_path));
  EXPECT_EQ(1, program->end(0));
  EXPECT_EQ(0, access(fake_core::mgmt_path, F_OK));
  EXPECT_NE(0, access(fake_core::data_path, F_OK));
  EXPECT_NE(0, access("/tmp/kxcore/.kxcore.lock", F_OK));
}

TEST_F(running_core, refuses_a_second_one) {
  EXPECT_EQ(1, child_process(core_command()).end(0));
  EXPECT_TRUE(is_bound(fake_core::mgmt_path));
}

namespace {

// A reader of the log behind /dev/log, which leads to a socket of the test's.
class logging_core : public kxcore {
 protected:
  void SetUp() override {
    if (child_process([] { mount_over("/dev"); }).end(0) != 0)
      GTEST_SKIP() << "the system permits no mount namespaces";
    start([] { mount_over("/dev"), symlink("/tmp/kxcore/log", "/dev/log"), setenv("KXTRACE_LEVEL", "6", 1); },
          "");
  }
  std::vector<std::string> read_log() {
    std::vector<std::string> lines;
    for (auto bytes = log->receive(); !bytes.empty(); bytes = log->receive())
      lines.emplace_back(bytes.begin(), bytes.end());
    return lines;
  }
  // Has the core write a line.
  void log_line() { EXPECT_EQ("RSP", ask(client).substr(0, 3)); }

  std::unique_ptr<raw_socket> log = std::make_unique<raw_socket>("/tmp/kxcore/log");
  raw_component client{"client"};
};

}  // namespace

TEST_F(logging_core, writes_lines_as_the_c_library_does) {
  log_line();
  const std::string head = "<30>[A-Z][a-z][a-z] [ 1-3][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] kxcore?",
                    pid = std::to_string(program->pid());
  EXPECT_TRUE(matches(read_log().back(), head + pid + "]: ?INFO] * registered with /tmp/kxcore/client-d"));
}

TEST_F(logging_core, skips_lines_that_nobody_reads_and_tells_how_many) {
  constexpr std::size_t calls = 200, lines_of_each = 2;
  log_line();
  read_log();
  for (std::size_t i = 0; i < calls; ++i)
    log_line();
  const std::size_t skipped = calls * lines_of_each - read_log().size();
  log_line();
  const std::vector<std::string> rest = read_log();
  ASSERT_EQ(1 + lines_of_each, rest.size());
  EXPECT_TRUE(matches(rest[0], "<28>*]: (" + std::to_string(skipped) + " lines were not read in time)"));
}

TEST_F(logging_core, finds_a_reader_that_was_started_again) {
  read_log();
  log.reset();
  log_line();
  log = std::make_unique<raw_socket>("/tmp/kxcore/log");
  log_line();
  EXPECT_EQ(3u, read_log().size());
}

TEST_F(running_core, notices_deaths_and_stops_in_order) {
  KXclientComponent client("client");
  client.register_component();
  proxy_probe proxy(&client);
  child_process server([] {
    KXclientComponent component("server");
    component.register_component();
    KXstub(&component).register_synchronous("get");
    pause();
  });
  const auto is_offered = [&] {
    try {
      return proxy.subscribe_synchronous("get") == 1;
    } catch (const KXerror::error_e&) {
      return usleep(1000) == 1;
    }
  };
  for (int tries = 0; !is_offered(); ++tries)
    ASSERT_LT(tries, patience_ms);
  server.end(SIGKILL);
  for (int tries = 0; is_offered(); ++tries)
    ASSERT_LT(tries, patience_ms);
  kill(program->pid(), SIGTERM);
  client.wait(true);
  EXPECT_EQ(0, program->end(0));
  EXPECT_TRUE(access(fake_core::mgmt_path, F_OK) != 0 && access(fake_core::data_path, F_OK) != 0);
}

TEST_F(running_core, carries_the_bytes_that_the_page_of_the_wire_format_shows) {
  const std::string page = read_file(WIRE_FORMAT_PAGE);
  for (const char* const name : {"guide-values", "guide-exchange"}) {
    std::string command = core_line();
    command.replace(command.rfind("kxcore"), std::string::npos, name);
    FILE* const output = popen(command.c_str(), "r");
    std::string printed = "```\n";
    for (char line[128]; fgets(line, sizeof line, output) != nullptr;)
      printed += line;
    EXPECT_EQ(0, pclose(output)) << name;
    EXPECT_NE(std::string::npos, page.find(printed + "```")) << name << " prints\n" << printed;
  }
}

TEST_F(running_core, a_component_takes_thousands_of_signals_and_stops_once) {
  child_process component([] {
    g_traceObject->level = 9;
    KXclientComponent storm("storm");
    const raw_socket has_handler("/tmp/kxcore/has_handler");
    const auto nothing = [](void*, int) { return 0; };
    const auto work = [&](int times) {  // logs and allocates all the time
      for (int i = 0; i < times; ++i)
        storm.add_msec_timer(0, &storm, nothing, i), storm.del_timer(&storm, nothing, i);
    };
    work(5000);
    storm.start(KXcomponent::CMP_START_AND_LOOP);
    work(5000);
  });
  ASSERT_TRUE(wait_until_bound(component, "/tmp/kxcore/has_handler"));
  std::vector<std::unique_ptr<child_process>> senders;
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
    senders.push_back(std::make_unique<child_process>([signal, target = component.pid()] {
      for (int i = 0; i < 2000; ++i)
        kill(target, signal), usleep(static_cast<useconds_t>(i % 503));
    }));
  }
  for (const auto& sender : senders)
    sender->end(0);
  siginfo_t ended = {};
  for (; ended.si_pid == 0; usleep(1000)) {  // it may not have begun its loop yet
    kill(component.pid(), SIGTERM);
#ifdef __SANITIZE_THREAD__  // its runtime may leave a thread that took signals with all of them blocked
    raw_socket("/tmp/kxcore/end")
        .send("/tmp/kxcore/storm", make_message(1, 1, MSG_SIG, CMD_KILL_COMPONENT, 0));
#endif
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(component.pid()), &ended, WEXITED | WNOWAIT | WNOHANG));
  }
  EXPECT_EQ(0, component.end(0));
  EXPECT_NE(0, access("/tmp/kxcore/storm", F_OK)) << "it stopped in order";
}
