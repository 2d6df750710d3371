#include <csignal>
#include <memory>

#include "component_test.h"

namespace {

constexpr int termination_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGPIPE};

// How many signals the library handles, without other flags, and with none held back.
int handled_signals() {
  int handled = 0;
  for (int signal = 1; signal < 32; ++signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    constexpr int flags = SA_SIGINFO | SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_ONSTACK | SA_NOCLDSTOP;
    handled += action.sa_sigaction == sig_handler && (action.sa_flags & flags) == SA_SIGINFO &&
               sigisemptyset(&action.sa_mask) == 1;
  }
  return handled;
}

// Where a component with these arguments has its sockets, and how many signals it handles.
template <typename Component, typename... Arguments>
std::string place_of(Arguments... arguments) {
  for (const int signal : termination_signals)
    std::signal(signal, SIG_IGN);
  Component made("c", arguments...);
  for (const std::string& path : {made.m_mgmt_socket_name, made.m_data_socket_name})
    EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
  EXPECT_EQ(made.get_socket_base_name() + "-d", made.m_data_socket_name);
  return made.m_mgmt_socket_name + " " + std::to_string(handled_signals());
}

}  // namespace

using construction = component;

TEST_F(construction, makes_sockets_that_do_not_block_and_do_not_outlive_an_exec) {
  EXPECT_EQ("2 2 ", given(SOCKET)) << "SOCK_DGRAM, and no flags";
  for (const int fd : {c.m_mgmt_fd, c.m_data_fd}) {
    int reused = 0;
    socklen_t length = sizeof reused;
    getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reused, &length);
    EXPECT_EQ((ints{1, O_NONBLOCK, FD_CLOEXEC}),
              (ints{reused, fcntl(fd, F_GETFL) & O_NONBLOCK, fcntl(fd, F_GETFD)}));
  }
}

TEST_F(construction, takes_its_directory_and_its_signals_from_the_settings) {
  using cfg = KXcomponent::ExtraCfg;
  constexpr cfg signals = {nullptr, true}, sub = {"media", false}, both = {"media", true}, here = {"", false};
  constexpr const cfg* none = nullptr;
  EXPECT_EQ("/tmp/kxcore/c 4", place_of<component_probe>());
  EXPECT_EQ("/tmp/kxcore/c 4", place_of<client_probe>());
  EXPECT_EQ("/tmp/kxcore/c 0", place_of<component_probe>(none));
  EXPECT_EQ("/tmp/kxcore/c 4", place_of<component_probe>(&signals));
  EXPECT_EQ("/tmp/kxcore//c 0", place_of<client_probe>(&here));
  EXPECT_EQ("/tmp/kxcore/media/c 4", place_of<client_probe>(&both));
  reset();
  EXPECT_EQ("/tmp/kxcore/media/c 0", place_of<component_probe>(&sub));
  EXPECT_EQ("/tmp/kxcore/ /tmp/kxcore/media/ ", given(MKDIR));
}

TEST_F(construction, makes_the_last_component_the_one_that_signals_end) {
  auto first = std::make_unique<component_probe>("first", nullptr);
  const component_probe second("second", nullptr);
  fail(BIND, EACCES);
  EXPECT_THROW(component_probe("third", nullptr), KXerror::error_e);
  EXPECT_EQ(&second, KXcomponent::static_kxc) << "not one that is not there";
  first.reset();
  EXPECT_EQ(nullptr, KXcomponent::static_kxc) << "whichever was destroyed";
}

TEST_F(construction, that_fails_leaves_nothing_behind) {
  const auto before = open_descriptors();
  for (const int signal : termination_signals)
    std::signal(signal, SIG_IGN);
  for (const std::string path : {"/tmp/kxcore/x", "/tmp/kxcore/x-d"}) {
    fail(BIND, EACCES, 1, path.back() == 'd' ? 1 : 0);
    fail(CLOSE, EIO);
    EXPECT_EQ("error 2", ended([] { return component_probe("x").m_nfds; })) << path;
    EXPECT_EQ(EACCES, errno) << path;
    EXPECT_EQ((std::tuple{-1, before, 0}),
              (std::tuple{access("/tmp/kxcore/x", F_OK), open_descriptors(), handled_signals()}))
        << path;
    EXPECT_TRUE(logged("(create_socket) - bind of unixsocket " + path + " failed - Permission denied"));
  }
}

TEST_F(construction, refuses_a_path_of_108_bytes_before_anything_is_made) {
  const auto path_of = [](std::size_t size) { return "/tmp/kxcore/" + std::string(size - 12, 'x'); };
  const auto made = [&](std::size_t size) {
    return component_probe(path_of(size - 2).c_str() + 12, nullptr).m_nfds;
  };
  std::string fits = path_of(107), exceeds = path_of(108);
  EXPECT_EQ("2", ended([&] { return made(107); }));
  EXPECT_EQ("0", ended([&] { return close(c.create_socket(fits)); }));
  reset();
  EXPECT_EQ("error 2", ended([&] { return made(108); }));
  EXPECT_EQ("error 2", ended([&] { return c.create_socket(exceeds); }));
  EXPECT_EQ(2, times_logged("failed - File name too long"));
  EXPECT_EQ(0, count_all());
}

TEST_F(construction, is_undone_by_stop_alone) {
  struct unstopped : bare_component {
    using bare_component::bare_component;
    using KXcomponent::m_mgmt_fd, KXcomponent::m_data_fd;
  };
  ints fds;
  for (const unstopped own("own", nullptr); fds.empty();)
    fds = {own.m_mgmt_fd, own.m_data_fd};
  EXPECT_EQ((ints{0, 0}), (ints{close(fds[0]), close(fds[1])})) << "the destructor has closed them";
  EXPECT_EQ((ints{0, 0}), (ints{remove("/tmp/kxcore/own"), remove("/tmp/kxcore/own-d")}));
}

TEST_F(construction, leaves_talking_to_the_core_to_derived_classes) {
  EXPECT_EQ((ints{0, 0, 0}), (ints{c.interconnect_service(nullptr, message), c.send_mgmt_message(message),
                                   c.send_data_message(message)}));
}
