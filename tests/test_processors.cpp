// Components built for this build's processor and for the build machine's, on a core of the build machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <sstream>

#include "child_process.h"

namespace {

constexpr char ours[] = OWN_PROGRAM;
constexpr char native[] = NATIVE_PROGRAM;

// What a program prints, once it succeeds.
std::string output_of(const std::string& command) {
  for (int tries = 0; tries < 1000; ++tries) {
    FILE* const program = popen((command + " 2>/dev/null").c_str(), "r");
    char line[80] = "";
    const bool printed = fgets(line, sizeof line, program) != nullptr;
    if (pclose(program) == 0 && printed) return line;
    usleep(1000);
  }
  return "nothing";
}

std::vector<std::string> words_of(const std::string& command) {
  std::istringstream words(command);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace

TEST(processors, of_two_kinds_talk_through_one_core) {
  child_process core(words_of(native + std::string("kxcore")));
  ASSERT_TRUE(wait_until_bound(core, "/tmp/kxcore/kxcore-d"));
  for (const auto& [stub, proxy] : {std::pair{ours, native}, {native, ours}}) {
    child_process server(words_of(stub + std::string("hello-stub")));
    EXPECT_EQ("Hello, world!\n", output_of(proxy + std::string("hello-proxy"))) << proxy;
    EXPECT_EQ(0, server.end(SIGTERM));
  }
}
