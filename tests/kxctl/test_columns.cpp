// The rows and cells of tables.
#include <gtest/gtest.h>

#include "columns.h"
#include "core_services.h"

TEST(rows, are_joined_where_both_tables_have_them) {
  const core_services::rows left = {{{"key", "a"}, {"x", 1}}, {{"key", "b"}, {"x", 2}}};
  const core_services::rows right = {{{"key", "b"}, {"y", 3}}, {{"key", "c"}, {"y", 4}}};
  EXPECT_EQ(R"([{"key":"b","x":2,"y":3}])", nlohmann::json(joined(left, right, "key")).dump());
}

TEST(a_number, is_short) {
  const struct {
    double number;
    const char* text;
  } rows[] = {{0, "0"},          {999, "999"},     {1000, "1.0K"}, {31274, "31.3K"},
              {314'000, "314K"}, {5.25e6, "5.2M"}, {7e12, "7000G"}};
  for (const auto& row : rows)
    EXPECT_EQ(row.text, short_number(row.number));
}
