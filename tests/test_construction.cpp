#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "component_test.h"

using namespace seam;

namespace {

constexpr int termination_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGPIPE};

int option_of(int fd, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, option, &value, &length));
  return value;
}

// How many of the termination signals are handled by the library, exactly as they are to be.
int handled_signals() {
  int handled = 0;
  for (const int signal : termination_signals) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    constexpr int flags = SA_SIGINFO | SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_ONSTACK | SA_NOCLDSTOP;
    if ((action.sa_flags & flags) != SA_SIGINFO || action.sa_sigaction != sig_handler) continue;
    for (const int other : termination_signals)
      EXPECT_EQ(0, sigismember(&action.sa_mask, other));
    ++handled;
  }
  return handled;
}

std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace

class construction : public seam_test {
 protected:
  construction() {
    for (const int signal : termination_signals)
      std::signal(signal, SIG_IGN);
  }
};

TEST_F(construction, makes_the_two_sockets_the_first_descriptors) {
  const component_probe c("audio", nullptr);
  EXPECT_EQ((ints{2, c.m_mgmt_fd, c.m_data_fd}), (ints{c.m_nfds, c.m_fda[0].fd, c.m_fda[1].fd}));
}

TEST_F(construction, makes_sockets_that_do_not_block_and_do_not_outlive_an_exec) {
  const component_probe c("audio", nullptr);
  EXPECT_EQ(SOCK_DGRAM, given().socket_type) << "and no flags";
  for (const int fd : {c.m_mgmt_fd, c.m_data_fd}) {
    EXPECT_EQ(SOCK_DGRAM, option_of(fd, SO_TYPE));
    EXPECT_EQ(1, option_of(fd, SO_REUSEADDR));
    EXPECT_EQ(O_NONBLOCK, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
  }
}

TEST_F(construction, takes_its_directory_and_its_signals_from_the_settings) {
  struct row {
    const char* what;
    std::function<std::string()> construct;
    const char* path;
    int handled;
  };
  using cfg = KXcomponent::ExtraCfg;
  const auto path_of = [](auto&& made) {
    return made.get_socket_base_name() + " " + made.m_mgmt_socket_name;
  };
  const cfg plain = {nullptr, true}, sub = {"media", false}, sub_too = {"media", true}, here = {"", false};
  const row rows[] = {
      {"sub-directory", [&] { return path_of(component_probe("c", &sub)); }, "media/c", 0},
      {"of a client", [&] { return path_of(client_probe("c", &sub)); }, "media/c", 0},
      {"no settings", [&] { return path_of(component_probe("c", nullptr)); }, "c", 0},
      {"of a client", [&] { return path_of(client_probe("c", nullptr)); }, "c", 0},
      {"empty sub-directory", [&] { return path_of(component_probe("c", &here)); }, "/c", 0},
      {"both", [&] { return path_of(client_probe("c", &sub_too)); }, "media/c", 4},
      {"signals", [&] { return path_of(component_probe("c", &plain)); }, "c", 4},
      {"one argument", [&] { return path_of(component_probe("c")); }, "c", 4},
      {"of a client", [&] { return path_of(client_probe("c")); }, "c", 4},
  };
  fake_clock(100);  // the clients tell a core that is not there
  for (const row& each : rows) {
    SCOPED_TRACE(each.what);
    for (const int signal : termination_signals)
      std::signal(signal, SIG_IGN);
    const std::string path = std::string("/tmp/kxcore/") + each.path;
    EXPECT_EQ(path + " " + path, each.construct());
    EXPECT_EQ(each.handled, handled_signals());
  }
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/kxcore/media"));
}

TEST_F(construction, binds_beside_each_other_in_a_sub_directory) {
  const KXcomponent::ExtraCfg sub = {"media", false};
  const component_probe c("c", &sub);
  for (const char* const path : {"/tmp/kxcore/media/c", "/tmp/kxcore/media/c-d"})
    EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
}

TEST_F(construction, takes_the_place_of_the_files_that_stand_there) {
  const raw_socket living("/tmp/kxcore/c");
  const component_probe c("c", nullptr);
  EXPECT_TRUE(living.send("/tmp/kxcore/c", hex("1")));
  EXPECT_TRUE(living.receive().empty()) << "it went to the one that was there before";
}

TEST_F(construction, makes_the_last_component_the_one_that_signals_end) {
  std::optional<component_probe> first, second;
  first.emplace("first", nullptr);
  EXPECT_EQ(&*first, KXcomponent::static_kxc);
  second.emplace("second", nullptr);
  EXPECT_EQ(&*second, KXcomponent::static_kxc);
  fail(BIND, EACCES);
  EXPECT_THROW(component_probe("third", nullptr), KXerror::error_e);
  EXPECT_EQ(&*second, KXcomponent::static_kxc) << "one that is not there";
  first.reset();
  EXPECT_EQ(nullptr, KXcomponent::static_kxc) << "whichever was destroyed";
}

TEST_F(construction, that_fails_leaves_nothing_behind) {
  const auto before = open_descriptors();
  for (const int skipped : {0, 1}) {
    fail(BIND, EACCES, 1, skipped);
    try {
      component_probe("x", nullptr);
      ADD_FAILURE() << "constructed";
    } catch (KXerror::error_e error) {
      EXPECT_EQ(EACCES, errno);
      EXPECT_EQ(KXerror::ERR_SOCKET_BIND, error);
    }
    EXPECT_EQ(before, open_descriptors()) << skipped;
    EXPECT_NE(0, access("/tmp/kxcore/x", F_OK)) << skipped;
  }
  EXPECT_TRUE(logged("(create_socket) - bind of unixsocket /tmp/kxcore/x failed - Permission denied"));
  EXPECT_TRUE(logged("(create_socket) - bind of unixsocket /tmp/kxcore/x-d failed - Permission denied"));
}

TEST_F(construction, refuses_a_path_of_108_bytes_before_anything_is_made) {
  const auto named = [](std::size_t data_path_length) {
    return std::string(data_path_length - std::string("/tmp/kxcore/-d").size(), 'x');
  };
  component_probe(named(107).c_str(), nullptr).stop();
  reset();
  EXPECT_THROW(component_probe(named(108).c_str(), nullptr), KXerror::error_e);
  EXPECT_TRUE(logged("x-d failed - File name too long"));
  EXPECT_EQ(std::vector<call_e>{}, calls());
}

TEST_F(construction, refuses_a_socket_whose_path_has_108_bytes) {
  component_probe c("c", nullptr);
  std::string fits = "/tmp/kxcore/" + std::string(95, 'y'), exceeds = fits + "y";
  const int fd = c.create_socket(fits);
  EXPECT_EQ(0, close(fd) + remove(fits.c_str()));
  reset();
  EXPECT_THROW(c.create_socket(exceeds), KXerror::error_e);
  EXPECT_EQ(0, count(REMOVE));
}

TEST_F(construction, is_undone_by_stop_alone) {
  struct unstopped : bare_component {
    using bare_component::bare_component;
    using KXcomponent::m_mgmt_fd, KXcomponent::m_data_fd;
  };
  int fds[2];
  {
    const unstopped c("c", nullptr);
    fds[0] = c.m_mgmt_fd, fds[1] = c.m_data_fd;
  }
  for (const int fd : fds)
    EXPECT_EQ(0, close(fd)) << "the destructor has closed it";
  for (const char* const path : {"/tmp/kxcore/c", "/tmp/kxcore/c-d"})
    EXPECT_EQ(0, remove(path)) << path;
}

TEST_F(construction, leaves_talking_to_the_core_to_derived_classes) {
  component_probe c("c", nullptr);
  KXmessage message;
  reset();
  c.register_component();
  c.unregister_component();
  EXPECT_EQ((ints{0, 0, 0}), (ints{c.interconnect_service(nullptr, message), c.send_mgmt_message(message),
                                   c.send_data_message(message)}));
  EXPECT_EQ(std::vector<call_e>{}, calls());
}

TEST_F(construction, routes_each_socket_to_its_own_receiver_which_keeps_it) {
  component_probe c("c", nullptr);
  ints received;
  c.on_mgmt = [&](int fd) { received.push_back(fd); };
  c.on_data = [&](int fd) { received.push_back(-fd); };
  for (const int index : {0, 1})
    EXPECT_EQ(0, c.m_fd_handlers[index].handler(c.m_fd_handlers[index].context, 5 + index));
  EXPECT_EQ((ints{5, -6}), received);
}
