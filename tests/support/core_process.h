// kxcore, and applications on its bus, in processes of their own.
#ifndef TESTS_CORE_PROCESS_H
#define TESTS_CORE_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "kx/app.h"
#include "kx/loop.h"

// A command whose words are separated by bars.
inline std::vector<std::string> words_of(std::string command) {
  std::replace(command.begin(), command.end(), '|', ' ');
  std::istringstream words(command);
  return {std::istream_iterator<std::string>(words), {}};
}

// The program, for as long as this lives; behind its emulator when it is built for another processor.
class core_process {
 public:
  core_process() : m_program(words_of(KXCORE_COMMAND)) {
    EXPECT_TRUE(wait_until_bound(m_program, "/tmp/kxcore/kxcore-d"));
  }
  ~core_process() { m_program.end(SIGTERM); }
  core_process(const core_process&) = delete;
  core_process& operator=(const core_process&) = delete;

 private:
  child_process m_program;
};

// A process in which an application runs, from when its loop runs.
class app_process {
 public:
  app_process(const char* name, const std::function<int(kx::port&)>& application)
      : m_ends(make_pipe()), m_program([&] {
          kx::app app(name);
          kx::timer in_loop(app, [this] { EXPECT_EQ(1, write(m_ends[1], "x", 1)); });
          in_loop.once(std::chrono::milliseconds(0));
          _exit(application(app));
        }) {
    char ready = 0;
    close(m_ends[1]);
    EXPECT_EQ(1, read(m_ends[0], &ready, 1)) << name << " does not start";
    close(m_ends[0]);
  }

  int end(int signal) { return m_program.end(signal); }

 private:
  static std::array<int, 2> make_pipe() {
    std::array<int, 2> ends = {-1, -1};
    EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
    return ends;
  }

  const std::array<int, 2> m_ends;
  child_process m_program;
};

#endif
