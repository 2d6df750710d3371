#include <unistd.h>

#include <fstream>

#include "component_test.h"

using namespace seam;

class signals : public component {
 protected:
  signals() {
    info.si_pid = 999999999;
    c.m_running = true;
  }
  void take(int signal = SIGTERM) { sig_handler(signal, &info, nullptr); }

  // Reads what the component sent to itself.
  ints unread_commands() {
    peer_info_t peer;
    ints commands;
    for (unsigned char byte; recv(c.m_mgmt_fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;) {
      c.rec_message(c.m_mgmt_fd, message, true, peer);
      commands.push_back(message.m_header->cmd);
    }
    return commands;
  }

  siginfo_t info = {};
};

TEST_F(signals, make_the_component_send_itself_the_kill_message) {
  take();
  peer_info_t peer;
  EXPECT_EQ(14, c.rec_message(c.m_mgmt_fd, message, true, peer));
  EXPECT_EQ(hex("0 0 0 1 0 0 0 1 4 B 33 33 33 33"), bytes_of(message));
  EXPECT_EQ("/tmp/kxcore/comp", std::string(peer.addr.sun_path));
}

TEST_F(signals, are_not_handled_where_no_component_runs) {
  c.m_running = false;
  take(SIGINT);
  EXPECT_TRUE(logged("[ERROR] KXcomponent:"));
  EXPECT_TRUE(logged("(sig_handler) - Signal Interrupt (2) not handled: component already stopped"));
  c.m_running = true;
  KXcomponent::static_kxc = nullptr;
  take(SIGPIPE);
  EXPECT_TRUE(logged("Signal Broken pipe (13) not handled: component already stopped"));
  EXPECT_EQ((ints{}), unread_commands());
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
  EXPECT_EQ("/proc/999999999/cmdline", given().opened);
  EXPECT_EQ((ints{11, 11, 11}), unread_commands());
}

TEST_F(signals, show_the_first_word_of_their_senders_command_line) {
  const std::string long_word(1024, 'x');
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"words", std::string("/bin/program\0-v\0", 16), "/bin/program"},
      {"a line feed at the end", "/bin/program\n", "/bin/program"},
      {"a line feed within", std::string("pro\ngram\0", 9), "pro\ngram"},
      {"nothing but a line feed", "\n", ""},
      {"shorter than the number it is read over", "ab", "abid)  999999999"},
      {"as long as there is room", long_word, long_word},
      {"longer", long_word + "y", long_word},
      {"empty", "", "(pid)  999999999"}};
  for (const auto& [what, content, shown] : rows) {
    clear_lines();
    std::ofstream("/tmp/kxcore/cmdline") << content;
    open_instead("/tmp/kxcore/cmdline");
    take();
    const std::string text = lines().at(0).text;
    EXPECT_EQ("Signal Terminated (15) received from " + shown + ": killing comp",
              text.substr(std::min(text.find("Signal"), text.size())))
        << what;
    EXPECT_EQ((ints{11}), unread_commands());
  }
}

TEST_F(signals, show_the_number_of_a_sender_that_cannot_be_read) {
  const std::pair<int, const char*> rows[] = {{0, "(pid)  0:"}, {10, "(pid)  10:"}, {-7, "(pid)  -7:"}};
  for (const auto& [pid, shown] : rows) {
    info.si_pid = pid;
    fail(OPEN, ENOENT);
    take();
    EXPECT_TRUE(logged(shown)) << shown;
  }
  clear_lines();
  open_instead("/tmp/kxcore");  // a directory can be opened, not read
  take();
  EXPECT_TRUE(logged("(pid)  -7:"));
}

// The loop's thread is in a handler, and takes them there.
TEST_F(signals, have_a_line_each_whatever_their_numbers_are_before_the_loop_ends) {
  fake_clock(100);
  handler interrupted = [&](int) {
    for (const int signal : {SIGTERM, SIGTERM, SIGUSR1, 77})
      take(signal);
    EXPECT_FALSE(logged("received from")) << "written in the handler";
    return -1;
  };
  c.add_msec_timer(0, &interrupted, call, 1);
  c.wait(true);
  std::string told;
  for (const log_line& line : lines()) {
    for (const char* const part : {"(15) received", "(10) received", "(77) received", "RX : [INTERCONNECT]"})
      if (line.text.find(part) != std::string::npos) told.append(part, 4);
  }
  EXPECT_EQ("(15)(15)(10)(77)RX :", told);
}

TEST_F(signals, have_their_lines_also_when_the_loop_is_left_by_an_exception) {
  fake_clock(100);
  handler interrupted = [&](int) -> int { take(), throw 1; };
  c.add_msec_timer(0, &interrupted, call, 1);
  EXPECT_THROW(c.wait(true), int);
  EXPECT_EQ(1, times_logged("received from"));
  take();
  EXPECT_EQ(2, times_logged("received from")) << "where no loop runs the handler writes it";
}

TEST_F(signals, send_no_kill_message_while_64_are_unserved) {
  before(SENDTO, [&] { unread_commands(); });  // somebody reads them, and does not serve the socket
  const auto sent_by_signals = [&] {
    const int earlier = count(SENDTO);
    for (int i = 0; i < 70; ++i)
      take();
    return count(SENDTO) - earlier;
  };
  EXPECT_EQ(64, sent_by_signals());
  c.on_mgmt = [](int) {};
  c.m_fd_handlers[0].handler(&c, c.m_mgmt_fd);
  EXPECT_EQ(64, sent_by_signals()) << "the management socket was served";
  int sent_in_loop = 0;
  handler interrupted = [&](int) {
    sent_in_loop = sent_by_signals();
    return c.m_running = false, -1;
  };
  fake_clock(100);
  clear_lines();
  c.on_mgmt = [&](int) { unread_commands(); };
  c.add_msec_timer(0, &interrupted, call, 1);
  c.wait(true);
  EXPECT_EQ(64, sent_in_loop) << "nothing was unread when the loop polled";
  EXPECT_EQ(70, times_logged("received from")) << "also those for which there was no room";
}

TEST_F(signals, try_again_after_a_kill_message_that_could_not_be_sent) {
  fake_clock(100);
  fail(SENDTO, ENOENT, 3 * 70);
  for (int i = 0; i < 70; ++i)
    take();
  EXPECT_EQ(240, now()) << "each was tried for two seconds";
  take();
  EXPECT_EQ((ints{11}), unread_commands());
}
