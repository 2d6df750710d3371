#include <gtest/gtest.h>

#include "private_bus.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) enter_private_bus();
  return RUN_ALL_TESTS();
}
