#include <gtest/gtest.h>

#include "probe.h"

using buffer = seam_test;

TEST_F(buffer, new_one_is_empty) {
  const buffer_t empty;
  EXPECT_EQ(0, empty.offset);
  EXPECT_EQ(0, empty.size);
  EXPECT_EQ(0, empty.pos);
}
