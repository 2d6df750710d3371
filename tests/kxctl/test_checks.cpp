// What the doctor finds.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "checks.h"
#include "kxctl_run.h"
#include "socket_address.h"

namespace {

using nlohmann::json;

// "WARN what", a line for each.
std::string told(const findings& found) {
  constexpr const char* levels[] = {"ok ", "WARN ", "FAIL "};
  std::string text;
  for (const finding& each : found)
    text += (text.empty() ? "" : "\n") + std::string(levels[each.level]) + each.what;
  return text;
}

// Runs a check that takes a path or other arguments.
template <typename... Arguments, typename... Given>
std::string checked(void (*check)(Arguments...), const Given&... given) {
  findings found;
  check(given..., found);
  return told(found);
}

class folder : public testing::Test {
 protected:
  void SetUp() override { mkdir(path.c_str(), 0755); }
  void TearDown() override {
    for (const std::string& each : m_files)
      unlink(each.c_str());
    rmdir((path + "/fd").c_str());
    rmdir(path.c_str());
  }
  std::string file(const std::string& name, const std::string& content = "") {
    m_files.push_back(path + "/" + name);
    std::ofstream(m_files.back()) << content;
    return m_files.back();
  }
  int bound(const std::string& name) {
    m_files.push_back(path + "/" + name);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socket_address(m_files.back());
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return fd;
  }

  const std::string path = "/tmp/kxcore/.checked";

 private:
  std::vector<std::string> m_files;
};

json component(const std::string& name, unsigned int queued, unsigned int unread, unsigned int grants = 1) {
  return {{"component", name},
          {"pid", 5},
          {"queued_bytes", queued},
          {"unread_bytes", unread},
          {"grants", grants}};
}

}  // namespace

TEST_F(folder, is_as_it_should_be_or_not) {
  const std::string owner =
      path + " is of uid " + std::to_string(geteuid()) + ", gid " + std::to_string(getegid()) + ", mode ";
  const struct {
    unsigned int mode;
    std::string told;
  } rows[] = {{0755, "ok " + owner + "0755"},
              {01777, "ok " + owner + "1777"},
              {0777, "WARN " + owner + "0777: everybody may remove the sockets of others"}};
  for (const auto& row : rows) {
    chmod(path.c_str(), row.mode);
    EXPECT_EQ(row.told, checked(check_directory, path));
  }
}

TEST_F(folder, is_a_folder_and_on_a_tmpfs) {
  const std::string other = file("file");
  EXPECT_EQ("FAIL " + other + " is not a directory", checked(check_directory, other));
  EXPECT_EQ("FAIL " + path + "/none: No such file or directory", checked(check_directory, path + "/none"));
  EXPECT_NE(std::string::npos,
            checked(check_directory, std::string("/proc"))
                .find("WARN /proc is not on a tmpfs: sockets survive a restart of the machine"));
}

TEST_F(folder, has_no_stale_sockets) {
  const int living = bound("living");
  file("no-socket");
  EXPECT_EQ("ok no socket file is without a process", checked(check_stale_sockets, path));
  close(bound("dead"));
  EXPECT_EQ("WARN socket files without a process: " + path + "/dead", checked(check_stale_sockets, path));
  close(living);
}

TEST_F(folder, has_settings) {
  EXPECT_EQ("WARN net.unix.max_dgram_qlen is 10: the socket of a component holds 11 unread messages",
            checked(check_queue_length, file("short", "10\n")));
  EXPECT_EQ("ok net.unix.max_dgram_qlen is 512", checked(check_queue_length, file("long", "512\n")));
  EXPECT_EQ("", checked(check_queue_length, path + "/none"));
}

TEST_F(folder, has_the_names_of_sockets) {
  const std::string once =
      "0: 2 0 0 0002 01 77 /tmp/kxcore/a\n0: 2 0 0 0002 01 78 /tmp/kxcore/b\n0: 2 0 0 0002 01 79\n";
  EXPECT_EQ("ok no two programs have one name", checked(check_names, file("once", once)));
  EXPECT_EQ("WARN two programs have one name: /tmp/kxcore/a",
            checked(check_names, file("twice", once + "0: 2 0 0 0002 01 80 /tmp/kxcore/a\n")));
  const std::string monitors = "0: 2 0 0 0005 03 80 /tmp/kxcore/.kxcore/monitor\n";
  EXPECT_EQ("ok no two programs have one name", checked(check_names, file("monitors", monitors + monitors)));
}

TEST_F(folder, has_the_descriptors_of_a_process) {
  mkdir((path + "/fd").c_str(), 0755);
  for (const char* const each : {"fd/0", "fd/1"})
    file(each);
  EXPECT_EQ("WARN the descriptors of kxcore cannot be counted", checked(check_descriptors, path));
  const std::string head = "Limit  Soft Limit  Hard Limit  Units\n";
  file("limits", head + "Max open files            66                  20000    files\n");
  EXPECT_EQ("ok kxcore has 64 of 66 descriptors left", checked(check_descriptors, path));
  file("limits", head + "Max open files            65                  20000    files\n");
  EXPECT_EQ("WARN kxcore has 63 of 65 descriptors left, a component takes 4",
            checked(check_descriptors, path));
  EXPECT_EQ("WARN the descriptors of kxcore cannot be counted", checked(check_descriptors, path + "/none"));
}

TEST(components, read_or_do_not) {
  const struct {
    unsigned int queued, unread_before, unread;
    const char* told;
  } rows[] = {
      {0, 0, 0, "ok all components read"},
      {0, 100, 0, "ok all components read"},
      {0, 0, 100, "ok all components read"},
      {0, 200, 100, "WARN a (pid 5) does not read: 0 bytes wait in the core, 100 in its socket"},
      {0, 100, 100, "WARN a (pid 5) does not read: 0 bytes wait in the core, 100 in its socket"},
      {7, 0, 100, "FAIL a (pid 5) does not read: 7 bytes wait in the core, 100 in its socket"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.told, checked(check_readers, session::rows{component("a", 0, row.unread_before)},
                                session::rows{component("a", row.queued, row.unread)}));
  EXPECT_EQ("ok all components read",
            checked(check_readers, session::rows{}, session::rows{component("a", 0, 100)}));
}

TEST(components, hold_grants_below_the_limit) {
  EXPECT_EQ("WARN b holds 920 services and subscriptions of 1024",
            checked(check_grants, session::rows{component("a", 0, 0, 919), component("b", 0, 0, 920)}));
}

TEST(services, are_wanted_in_vain) {
  const session::rows offered = {{{"service", "get"}, {"component", "server"}},
                                 {{"service", "put"}, {"component", ""}}};
  const auto wanted = [](const std::string& by, const std::string& reason, int times) {
    return refusals{by, {{{"reason", reason}, {"times", times}}}};
  };
  const auto told_of = [&](const std::vector<refusals>& all) { return checked(check_wishes, all, offered); };
  EXPECT_EQ("ok no service is wanted in vain",
            told_of({wanted("a", "nobody offers 'get'", 1), wanted("a", "'get' is a signal", 1),
                     wanted("a", "nobody", 1)}));
  EXPECT_EQ(
      "WARN nobody offers 'nix', which is wanted by a (1 times), b (3 times)\n"
      "WARN nobody offers 'put', which is wanted by a (2 times)",
      told_of({wanted("a", "nobody offers 'put'", 2), wanted("a", "nobody offers 'nix'", 1),
               wanted("b", "nobody offers 'nix'", 3)}));
}

class doctors : public bus_with_core {};

TEST_F(doctors, look_at_the_core_and_the_bus) {
  stand_in client("client");
  client.ask(CMD_SUB_FUNCTION, "nix");
  const std::string text = kxctl("--json doctor");
  const json found = json::parse(text.substr(3));
  std::vector<std::string> whats;
  for (const json& each : found["findings"])
    whats.push_back(each["what"]);
  EXPECT_EQ("kxcore answers in ", whats.at(0).substr(0, 18));
  EXPECT_EQ("kxcore has ", whats.at(1).substr(0, 11));
  EXPECT_EQ("nobody offers 'nix', which is wanted by client (1 times)", whats.back());
}

TEST_F(doctors, fail_without_a_core) {
  end_core(SIGKILL);
  const std::string text = kxctl("doctor");
  EXPECT_EQ("1: FAIL  no kxcore runs here, one has left /tmp/kxcore/kxcore and ended: start it",
            text.substr(0, text.find('\n')));
  EXPECT_NE(std::string::npos, text.find(", /tmp/kxcore/kxcore-d\n"));
}
