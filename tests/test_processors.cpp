// Components built for this build's processor and for the build machine's, on a core of the build machine.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <sstream>

#include "child_process.h"

namespace {

std::vector<std::string> words_of(const std::string& command) {
  std::istringstream words(command);
  return {std::istream_iterator<std::string>(words), {}};
}

}  // namespace

TEST(processors, of_two_kinds_talk_through_one_core) {
  child_process core(words_of(NATIVE_PROGRAM "kxcore"));
  ASSERT_TRUE(wait_until_bound(core, "/tmp/kxcore/kxcore-d"));
  for (const auto& [stub, proxy] : {std::pair{OWN_PROGRAM, NATIVE_PROGRAM}, {NATIVE_PROGRAM, OWN_PROGRAM}}) {
    child_process server(words_of(stub + std::string("hello-stub")));
    const std::string greet =
        "until " + std::string(proxy) + "hello-proxy | grep 'Hello, world!'; do sleep 0.1; done";
    EXPECT_EQ(0, std::system(("timeout 30 sh -c \"" + greet + "\"").c_str())) << proxy;
    EXPECT_EQ(0, server.end(SIGTERM));
  }
}
