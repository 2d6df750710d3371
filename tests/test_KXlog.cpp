#include "probe.h"

using log_macros = seam_test;

TEST_F(log_macros, write_from_their_level_on_and_only_then_evaluate_arguments) {
  const std::string expected[] = {"", "", "", "3", "34", "34", "346", "3467", "34677", "346777"};
  for (int level = 0; level < 10; ++level) {
    seam::reset();
    seam::trace_level(level);
    std::string evaluated, written;
    KX_LOG_ERROR("%s", (evaluated += "3").c_str());
    KX_LOG_WARNING("%s", (evaluated += "4").c_str());
    KX_LOG_INFO("%s", (evaluated += "6").c_str());
    KX_LOG_DEBUG1("%s", (evaluated += "7").c_str());
    KX_LOG_DEBUG2("%s", (evaluated += "7").c_str());
    KX_LOG_DEBUG3("%s", (evaluated += "7").c_str());
    for (const seam::log_line& line : seam::lines())
      written += std::to_string(line.priority);
    EXPECT_EQ(expected[level] + expected[level], evaluated + written) << level;
  }
  sigset_t during;
  errno = 5;
  KX_LOG_INFO_IN("f", "%d %d", pthread_sigmask(SIG_BLOCK, nullptr, &during), errno = 7);
  EXPECT_TRUE(errno == 5 && seam::logged("[INFO] test_KXlog:") && seam::logged(" (f) - 0 7"));
  EXPECT_TRUE(sigismember(&during, SIGTERM) == 1 && sigismember(&during, SIGPIPE) == 1);
}
