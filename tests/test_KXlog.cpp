#include <utility>

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
    EXPECT_EQ(expected[level], written) << level;
    EXPECT_EQ(expected[level], evaluated) << level;
  }
}

TEST_F(log_macros, write_nothing_without_a_trace_object) {
  trace_object_t* const object = std::exchange(g_traceObject, nullptr);
  KX_LOG_ERROR("a line");
  g_traceObject = object;
  EXPECT_TRUE(seam::lines().empty());
}

TEST_F(log_macros, keep_errno_and_hold_termination_signals_back_while_a_line_is_written) {
  sigset_t during, after;
  errno = 5;
  KX_LOG_INFO("%d %d", pthread_sigmask(SIG_BLOCK, nullptr, &during), errno = 7);
  EXPECT_EQ(5, errno);
  pthread_sigmask(SIG_BLOCK, nullptr, &after);
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
    EXPECT_EQ(1, sigismember(&during, signal)) << signal;
    EXPECT_EQ(0, sigismember(&after, signal)) << signal;
  }
}
