// What the core tells: the lines for the person who watches it, and the answers to strangers.
#include <fcntl.h>
#include <poll.h>

#include <csignal>
#include <fstream>

#include "core_probe.h"

namespace {

struct pipe_ends {
  pipe_ends() { EXPECT_EQ(0, pipe2(fds, O_CLOEXEC)); }
  ~pipe_ends() { close(fds[0]), close(fds[1]); }
  std::string read_all() const {
    std::string text;
    char part[4096];
    for (pollfd entry = {fds[0], POLLIN, 0}; poll(&entry, 1, 0) > 0;)
      text.append(part, static_cast<std::size_t>(read(fds[0], part, sizeof part)));
    return text;
  }
  int fds[2];
};

// Takes what goes to a descriptor of this process.
struct capture {
  explicit capture(int fd) : taken(fd), before(dup(fd)) { dup2(pipe.fds[1], fd); }
  ~capture() { dup2(before, taken), close(before); }
  pipe_ends pipe;
  int taken, before;
};

struct consoles : seam_test {
  pipe_ends pipe;
};

}  // namespace

TEST_F(consoles, write_each_line_behind_the_prefix_and_cut_long_ones) {
  console lines(pipe.fds[1], "p: ");
  lines.line("%s %d", "one", 1), lines.line("%s", std::string(600, 'x').c_str());
  EXPECT_EQ("p: one 1\np: " + std::string(507, 'x') + "\n", pipe.read_all());
}

TEST_F(consoles, skip_lines_for_a_reader_that_does_not_keep_up_and_tell_how_many) {
  console lines(pipe.fds[1], "p: ");
  for (int i = 0; i < 400; ++i)
    lines.line("%s", std::string(400, 'x').c_str());
  const std::string read = pipe.read_all();
  const auto skipped = 400 - std::count(read.begin(), read.end(), '\n');
  lines.line("next"), lines.line("last");
  EXPECT_EQ("p: (" + std::to_string(skipped) + " lines were not read in time)\np: next\np: last\n",
            pipe.read_all());
}

TEST_F(consoles, do_not_block_where_others_do) {
  const console lines(pipe.fds[1], "");
  EXPECT_EQ(0, fcntl(pipe.fds[1], F_GETFL) & O_NONBLOCK) << "the description belongs to others, too";
  EXPECT_NE(std::string::npos, seam::given(seam::OPEN).find("/proc/self/fd/")) << "it has none of its own";
  seam::fail(seam::OPEN, EACCES);
  console(pipe.fds[1], "").line("a");
  EXPECT_EQ("a\n", pipe.read_all());
}

TEST_F(consoles, keep_the_position_in_a_file) {
  char path[] = "/tmp/kxcore/lines-XXXXXX";
  const unique_fd file(mkstemp(path));
  EXPECT_EQ(7, write(file.get(), "before\n", 7));
  console(file.get(), "").line("a");
  EXPECT_EQ(6, write(file.get(), "after\n", 6));
  std::ifstream written(path);
  EXPECT_EQ("before\na\nafter\n", std::string(std::istreambuf_iterator<char>(written), {}));
  unlink(path);
}

TEST_F(consoles, count_a_line_that_nobody_can_read_any_more) {
  const auto before = signal(SIGPIPE, SIG_IGN);
  console lines(pipe.fds[1], "");
  const int reader = dup(pipe.fds[0]);
  close(pipe.fds[0]);
  lines.line("kept"), close(reader), lines.line("lost");
  pipe.fds[0] = open(("/proc/self/fd/" + std::to_string(pipe.fds[1])).c_str(), O_RDONLY | O_CLOEXEC);
  lines.line("next");
  EXPECT_EQ("kept\n(1 lines were not read in time)\nnext\n", pipe.read_all());
  signal(SIGPIPE, before);
}

using reports = seam_test;

TEST_F(reports, go_where_the_verbosity_and_the_level_of_the_log_say) {
  const struct {
    bool verbose;
    int level;
    std::string out, err, log;
  } rows[] = {{false, 3, "", "", ""},
              {false, 4, "", "kxcore: a problem\n", "4 a problem "},
              {false, 5, "", "kxcore: a problem\n", "4 a problem "},
              {false, 6, "", "kxcore: a problem\n", "6 an event 4 a problem "},
              {true, 3, "an event\na problem\n", "", ""},
              {true, 4, "an event\na problem\n", "", "4 a problem "},
              {true, 6, "an event\na problem\n", "", "6 an event 4 a problem "}};
  for (const auto& row : rows) {
    seam::clear_lines();
    seam::trace_level(row.level);
    std::string out, err, log;
    {
      const capture standard_output(STDOUT_FILENO), standard_error(STDERR_FILENO);
      reporter report(row.verbose);
      report.event("an %s", "event"), report.problem("a %s", "problem");
      out = standard_output.pipe.read_all(), err = standard_error.pipe.read_all();
    }
    for (const seam::log_line& line : seam::lines())
      log += std::to_string(line.priority) + line.text.substr(line.text.rfind(" - ") + 2) + " ";
    EXPECT_EQ(row.out, out) << row.verbose << row.level;
    EXPECT_EQ(row.err, err) << row.verbose << row.level;
    EXPECT_EQ(row.log, log) << row.verbose << row.level;
  }
}

TEST_F(reports, are_thinned_out_after_the_first_eight) {
  std::string told;
  for (unsigned long count = 1; count < 70; ++count)
    if (reporter::is_reported(count)) told += std::to_string(count) + " ";
  EXPECT_EQ("1 2 3 4 5 6 7 8 16 32 64 ", told);
  tally count;
  count.dropped = 14;
  for (reporter report(false); count.dropped < 16;)
    report.dropped(count, "somebody", "a reason");
  EXPECT_EQ(1, seam::times_logged("dropped a message of somebody (16 so far): a reason"));
}

namespace {

class outside : public seam_test {
 protected:
  void answer(const raw_socket& at, uid_t claimed, pid_t pid = 7) {
    outsiders.answer({at.path(), pid, claimed}, make_message(1, 1, MSG_ERR, 1, 5));
  }
  // What a stranger of this user is answered at this socket.
  std::string answered(const raw_socket& at, uid_t claimed, pid_t pid = 7) {
    answer(at, claimed, pid);
    return raw_component::arrived(at);
  }

  reporter report{false};
  strangers outsiders{report, "/tmp/kxcore/"};
  raw_socket socket{"/tmp/kxcore/stranger"};
  const uid_t own = geteuid(), foreign = own + 1;
};

}  // namespace

TEST_F(outside, only_paths_below_the_directory_are_on_the_bus) {
  for (const char* const path : {"/tmp/kxcore/a", "/tmp/kxcore/sub/a", "/tmp/kxcore/..a"})
    EXPECT_TRUE(outsiders.is_on_bus(path)) << path;
  for (const char* const path : {"/tmp/kxcore/../a", "/tmp/kxcore/b/../a", "/tmp/kxcorea", "/tmp/kxcore/./a",
                                 "/tmp/kxcore//a", "/x/tmp/kxcore/a", ""})
    EXPECT_FALSE(outsiders.is_on_bus(path)) << path;
}

TEST_F(outside, nobody_is_answered_but_at_a_socket_of_its_own) {
  EXPECT_EQ("ERR 5", answered(socket, own));
  EXPECT_EQ("", answered(socket, foreign));
  EXPECT_EQ("ERR 5", answered(socket, sender::overflow_uid, 0)) << "who could not be told yet";
  EXPECT_EQ("", answered(socket, sender::overflow_uid)) << "a process of nobody's";
  const raw_socket off("/tmp/kxcore-" + std::to_string(getpid()));
  EXPECT_EQ("", answered(off, own)) << "not on the bus";
  unlink(socket.path().c_str());
  const raw_socket elsewhere("/tmp/kxcore/elsewhere");
  EXPECT_EQ(0, symlink(elsewhere.path().c_str(), socket.path().c_str()));
  answer(socket, own);
  EXPECT_EQ("", raw_component::arrived(elsewhere)) << "through a link";
}

TEST_F(outside, a_flood_is_answered_512_times_in_a_tenth_of_a_second) {
  seam::fake_clock(100.05);
  for (int sent = 0; sent < 512; ++sent)
    ASSERT_EQ("ERR 5", answered(socket, own)) << sent;
  EXPECT_EQ("", answered(socket, own));
  seam::advance(0.04);
  EXPECT_EQ("", answered(socket, own));
  seam::advance(0.02);
  EXPECT_EQ("ERR 5", answered(socket, own));
}

TEST_F(outside, answers_that_nobody_reads_are_at_the_cost_of_nobody) {
  seam::fake_clock(100.05);
  std::vector<unique_fd> silents;
  for (int i = 0; i < 60; ++i) {  // each takes as many as it holds, in all more than a send buffer does
    const raw_socket silent("/tmp/kxcore/silent");
    seam::fail(seam::SOCKET, EMFILE, 99);
    for (int sent = 0; sent < 12; ++sent)
      answer(silent, own);
    seam::fail(seam::SOCKET, 0, 0);
    seam::advance(0.1);
    silents.emplace_back(dup(silent.fd()));
  }
  const long descriptors = open_descriptors();
  EXPECT_EQ("ERR 5", answered(socket, own));
  EXPECT_EQ(descriptors, open_descriptors());
}

TEST_F(outside, answers_that_one_does_not_read_cost_no_sockets) {
  const int before = seam::count(seam::SOCKET);
  for (int sent = 0; sent < 40; ++sent)
    answer(socket, own);
  EXPECT_EQ(before, seam::count(seam::SOCKET));
}

TEST_F(outside, somebody_is_answered_when_no_descriptors_are_left) {
  seam::fail(seam::OPEN, EMFILE);
  EXPECT_EQ("", answered(socket, own));
  const long limit = open_descriptors();
  const unique_fd kept(dup(socket.fd()));
  limit_descriptors(limit - 1);
  for (int times = 0; times < 2; ++times)
    EXPECT_EQ("ERR 5", answered(socket, own));
  limit_descriptors(1024);
}

TEST_F(outside, a_core_without_sockets_does_not_begin) {
  seam::fail(seam::SOCKET, EMFILE);
  EXPECT_THROW(strangers(report, "/tmp/kxcore/"), std::system_error);
  seam::fail(seam::SOCKET, EMFILE);
  EXPECT_THROW(roster{report}, std::system_error);
}

TEST_F(outside, drops_are_counted_for_each_component_and_for_all_strangers) {
  peer component("component", {"/tmp/kxcore/component", 0, own}, "");
  for (const char* const path : {"/tmp/kxcore/a b\n", "/tmp/kxcore/\x7F"})
    outsiders.drop(nullptr, {path, 1, own}, "why");
  outsiders.drop(&component, {"/tmp/kxcore/component", 1, own}, "why");
  for (const std::string from : {"[/tmp/kxcore/a b?] (1", "[/tmp/kxcore/?] (2", "component (1"})
    EXPECT_TRUE(seam::logged("dropped a message of " + from + " so far): why")) << from;
}
