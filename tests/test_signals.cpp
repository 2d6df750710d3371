#include <fstream>

#include "component_test.h"

class signals : public component {
 protected:
  signals() {
    info.si_pid = 999999999;
    c.m_running = true;
  }
  void take(int signal = SIGTERM) { sig_handler(signal, &info, nullptr); }

  // The commands that the component sent to itself.
  ints unread() {
    ints commands;
    peer_info_t peer;
    for (char byte; recv(c.m_mgmt_fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;) {
      c.rec_message(c.m_mgmt_fd, message, true, peer);
      commands.push_back(message.m_header->cmd);
    }
    return commands;
  }
  // Has the loop's thread, in a handler, do `work`.
  void run_in_loop(const std::function<void()>& work, int result = -1) {
    handler working = [&](int) { return work(), result; };
    c.add_msec_timer(0, &working, call, 1);
    c.wait(true);
  }

  siginfo_t info = {};
};

TEST_F(signals, make_the_component_send_itself_the_kill_message) {
  before(SENDTO, [] { EXPECT_TRUE(logged("received from")) << "it says so before"; });
  take();
  EXPECT_EQ((ints{CMD_KILL_COMPONENT}), unread());
  EXPECT_EQ(hex("0 0 0 1 0 0 0 1 4 B 33 33 33 33"), bytes_of(message));
}

TEST_F(signals, are_not_handled_where_no_component_runs) {
  c.m_running = false;
  take(SIGINT);
  EXPECT_TRUE(logged("[ERROR] KXcomponent:"));
  EXPECT_TRUE(logged("(sig_handler) - Signal Interrupt (2) not handled: component already stopped"));
  c.m_running = true;
  KXcomponent::static_kxc = nullptr;
  take(SIGPIPE);
  EXPECT_TRUE(logged("(sig_handler) - Signal Broken pipe (13) not handled: component already stopped"));
}

TEST_F(signals, keep_errno_and_ask_for_the_sender_only_when_that_is_shown) {
  for (const int level : {3, 5, 6}) {
    for (const bool running : {false, true}) {
      trace_level(level);
      c.m_running = running;
      errno = level;
      take();
      EXPECT_EQ(level, errno);
      EXPECT_EQ(running && level == 6 ? "/proc/999999999/cmdline " : "", given(OPEN));
    }
  }
  EXPECT_EQ((ints{11, 11, 11}), unread()) << "from the component that runs";
}

TEST_F(signals, show_the_first_word_of_their_senders_command_line_or_its_number) {
  const std::string word(1024, 'x'), directory = "/tmp/kxcore",
                                     absent = "/absent";  // the first can be opened, not read
  const std::tuple<int, std::string, std::string> rows[] = {
      {7, std::string("/bin/program\0-v\0", 16), "/bin/program"},
      {7, "/bin/program\n", "/bin/program"},
      {7, std::string("pro\ngram\0", 9), "pro\ngram"},
      {7, "\n", ""},
      {123456, "ab", "abid)  123456"},
      {7, word + "y", word},
      {7, "", "(pid)  7"},
      {0, directory, "(pid)  0"},
      {-10, absent, "(pid)  -10"}};
  for (const auto& [pid, content, shown] : rows) {
    info.si_pid = pid;
    std::ofstream("/tmp/kxcore/cmdline") << content;
    open_instead(content == directory || content == absent ? content : "/tmp/kxcore/cmdline");
    take();
    EXPECT_TRUE(logged("Signal Terminated (15) received from " + shown + ": killing comp")) << shown;
    unread();
  }
}

TEST_F(signals, have_a_line_each_in_their_order_whatever_their_numbers_are_before_they_are_served) {
  int taken = 0;
  std::string written;
  before(SENDTO, [&] { unread(); });  // so that there is room
  c.on_mgmt = [&](int) {
    for (const log_line& line : lines())
      if (const auto at = line.text.find(") received from"); at != std::string::npos)
        written += line.text.substr(line.text.rfind('(', at), at - line.text.rfind('(', at));
    clear_lines(), unread();
    c.m_running = taken < 200;
  };
  std::string expected;
  run_in_loop(
      [&] {
        for (int i = 0; i < 50; ++i)
          take(++taken), expected += "(" + std::to_string(taken);
        EXPECT_FALSE(logged("received from")) << "written in the handler";
      },
      0);
  EXPECT_EQ(expected, written);
}

TEST_F(signals, have_their_lines_also_when_the_loop_is_left_by_an_exception) {
  EXPECT_THROW(run_in_loop([&] { take(), throw 1; }), int);
  EXPECT_EQ(1, times_logged("received from"));
  take();
  EXPECT_EQ(2, times_logged("received from")) << "where no loop runs the handler writes it";
  c.m_timers.clear();
  c.on_mgmt = [&](int) { unread(); };
  before(CLOSE, [] { EXPECT_EQ(3, times_logged("received from")); });
  run_in_loop([&] { take(), c.m_running = false; });
}

TEST_F(signals, send_no_kill_message_while_64_are_unserved) {
  before(SENDTO, [&] { unread(); });  // somebody reads them, and does not serve the socket
  const auto sent_by_signals = [&] {
    const int earlier = count(SENDTO);
    for (int i = 0; i < 70; ++i)
      take();
    return count(SENDTO) - earlier;
  };
  EXPECT_EQ(64, sent_by_signals());
  c.on_mgmt = [&](int) { unread(); };
  c.m_fd_handlers[0].handler(&c, c.m_mgmt_fd);
  EXPECT_EQ(64, sent_by_signals()) << "the management socket was served";
  clear_lines(), unread();
  run_in_loop([&] {
    EXPECT_EQ(64, sent_by_signals()) << "nothing was unread when the loop polled";
    c.m_running = false;
  });
  EXPECT_EQ(70, times_logged("received from")) << "also those for whose notes there was no room";
}

TEST_F(signals, try_again_after_a_kill_message_that_could_not_be_sent) {
  fail(SENDTO, ENOENT, 3 * 70);
  for (int i = 0; i < 70; ++i)
    take();
  EXPECT_EQ(240, now()) << "each was tried for two seconds";
  take();
  EXPECT_EQ((ints{11}), unread());
}
