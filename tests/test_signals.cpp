#include <fstream>
#include <memory>
#include <tuple>

#include "component_test.h"
#include "signal_notes.h"

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
  void run_in_loop(const std::function<void()>& work) {
    handler working = [&](int) { return work(), -1; };
    c.add_msec_timer(0, &working, call, 1);
    c.wait(true);
  }

  siginfo_t info = {};
};

TEST_F(signals, make_the_component_send_itself_the_kill_message) {
  clear_lines();
  take();
  EXPECT_NE(std::string::npos, lines().at(0).text.find("received from")) << "and says so before";
  EXPECT_EQ((ints{CMD_KILL_COMPONENT}), unread());
  EXPECT_EQ(hex("0 0 0 1 0 0 0 1 4 B 33 33 33 33"), bytes_of(message));
  EXPECT_TRUE(logged("(rec_message) - Received message from /tmp/kxcore/comp"));
}

TEST_F(signals, are_not_handled_where_no_component_runs) {
  c.m_running = false;
  trace_level(3);
  take(SIGINT);
  EXPECT_TRUE(logged("(sig_handler) - Signal Interrupt (2) not handled: component already stopped"));
  c.m_running = true;
  KXcomponent::static_kxc = nullptr;
  take(SIGPIPE);
  EXPECT_TRUE(logged("(sig_handler) - Signal Broken pipe (13) not handled: component already stopped"));
  EXPECT_EQ((ints{}), unread());
}

TEST_F(signals, keep_errno_and_ask_for_the_sender_only_when_that_is_shown) {
  for (const int level : {3, 5, 6}) {
    for (const bool running : {false, true}) {
      trace_level(level);
      c.m_running = running;
      errno = level;
      take();
      EXPECT_EQ(level, errno);
      EXPECT_EQ(running && level == 6 ? 1 : 0, count(OPEN));
    }
  }
  EXPECT_EQ("/proc/999999999/cmdline ", given(OPEN));
  EXPECT_EQ((ints{11, 11, 11}), unread());
}

TEST_F(signals, show_the_first_word_of_their_senders_command_line_or_its_number) {
  const std::string word(1024, 'x'), directory = "/tmp/kxcore";  // which can be opened, and not read
  const std::tuple<int, std::string, std::string> rows[] = {
      {7, std::string("/bin/program\0-v\0", 16), "/bin/program"},
      {7, "/bin/program\n", "/bin/program"},
      {7, std::string("pro\ngram\0", 9), "pro\ngram"},
      {7, "\n", ""},
      {123456, "ab", "abid)  123456"},
      {7, word, word},
      {7, word + "y", word},
      {7, "", "(pid)  7"},
      {0, directory, "(pid)  0"},
      {-10, directory, "(pid)  -10"}};
  for (const auto& [pid, content, shown] : rows) {
    clear_lines();
    info.si_pid = pid;
    std::ofstream("/tmp/kxcore/cmdline") << content;
    open_instead(content == directory ? directory : "/tmp/kxcore/cmdline");
    take();
    EXPECT_TRUE(logged("Signal Terminated (15) received from " + shown + ": killing comp")) << shown;
    unread();
  }
  fail(OPEN, ENOENT);
  take();
  EXPECT_TRUE(logged("(sig_handler) - Signal Terminated (15) received from (pid)  -10: killing comp"));
}

TEST_F(signals, have_a_line_each_whatever_their_numbers_are_before_the_loop_ends) {
  run_in_loop([&] {
    for (const int signal : {SIGTERM, SIGTERM, SIGUSR1, 77})
      take(signal);
    EXPECT_FALSE(logged("received from")) << "written in the handler";
  });
  std::string told;
  for (const log_line& line : lines())
    for (const char* const part : {"(15) received", "(10) received", "(77) received", "RX : [INTERCONNECT]"})
      if (line.text.find(part) != std::string::npos) told.append(part, 4);
  EXPECT_EQ("(15)(15)(10)(77)RX :", told);
}

TEST_F(signals, have_their_lines_also_when_the_loop_is_left_by_an_exception) {
  EXPECT_THROW(run_in_loop([&] { take(), throw 1; }), int);
  EXPECT_EQ(1, times_logged("received from"));
  take();
  EXPECT_EQ(2, times_logged("received from")) << "where no loop runs the handler writes it";
  c.m_timers.clear();
  c.on_mgmt = [&](int) { unread(); };
  run_in_loop([&] { take(), c.m_running = false; });
  std::string last;
  for (const log_line& line : lines())
    if (line.text.find("received from") + line.text.find("Exit polling") + 1 < line.text.size())
      last = line.text;
  EXPECT_NE(std::string::npos, last.find("Exit polling loop")) << last;
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

TEST_F(signals, leave_up_to_64_notes_in_their_order) {
  auto notes = std::make_unique<signal_notes>();
  signal_note note;
  int taken = 0;
  for (int added = 0; added < 200; ++added) {
    take_note(note, added, 1);
    if (added - taken == signal_notes::capacity) {
      EXPECT_FALSE(notes->add(note));
      signal_note oldest;
      EXPECT_TRUE(notes->take(oldest));
      EXPECT_EQ(taken++, oldest.signal);
    }
    EXPECT_TRUE(notes->add(note)) << added;
  }
}

TEST_F(signals, try_again_after_a_kill_message_that_could_not_be_sent) {
  fail(SENDTO, ENOENT, 3 * 70);
  for (int i = 0; i < 70; ++i)
    take();
  EXPECT_EQ(240, now()) << "each was tried for two seconds";
  take();
  EXPECT_EQ((ints{11}), unread());
}
