// What a service tells about itself.
#include "description.h"

#include <gtest/gtest.h>

namespace {

constexpr char thermometer[] = R"(<interface>
  <method cmd="1" name="read">
    <arg direction="in" name="metric" type="s"/>
    <arg direction="out" name="value" type="u" unit="kB"/>
  </method>
  <signal cmd="1" name="load"><arg name="load" type="u" unit="1/100"/></signal>
</interface>)";

const description::command& command_of(const char* xml, std::uint8_t cmd, bool is_signal) {
  static std::optional<description> parsed;
  parsed = description::parse(xml);
  return *parsed.value().find(cmd, is_signal);
}

TEST(description, names_a_command) { EXPECT_EQ(command_of(thermometer, 1, false).name, "read"); }

TEST(description, tells_a_signal_from_a_method_with_its_number) {
  EXPECT_EQ(command_of(thermometer, 1, true).name, "load");
}

TEST(description, names_what_a_request_carries) {
  EXPECT_EQ(command_of(thermometer, 1, false).in.at(0).name, "metric");
}

TEST(description, keeps_the_values_of_the_answer_apart) {
  EXPECT_EQ(command_of(thermometer, 1, false).in.size(), 1U);
}

TEST(description, has_the_units_of_an_answer) {
  EXPECT_EQ(command_of(thermometer, 1, false).out.at(0).unit, "kB");
}

TEST(description, has_the_types_of_a_signal) {
  EXPECT_EQ(command_of(thermometer, 1, true).out.at(0).type, "u");
}

TEST(description, knows_no_other_command) {
  EXPECT_EQ(description::parse(thermometer)->find(2, false), nullptr);
}

class other_texts : public testing::TestWithParam<std::string> {};

TEST_P(other_texts, are_no_description) { EXPECT_FALSE(description::parse(GetParam()).has_value()); }

INSTANTIATE_TEST_SUITE_P(description, other_texts,
                         testing::Values("", "none", "<interface>", "<interface", "<node/>", "&",
                                         "<interface><method cmd=\"1\"</interface>",
                                         "<interface>" + std::string(4096, ' ') + "</interface>"));

class numbers_of_no_command : public testing::TestWithParam<const char*> {};

TEST_P(numbers_of_no_command, are_passed_over) {
  const std::string xml =
      "<interface><method cmd=\"" + std::string(GetParam()) + "\" name=\"x\"/></interface>";
  EXPECT_EQ(description::parse(xml)->commands().size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(description, numbers_of_no_command,
                         testing::Values("", "x", "-1", "256", "1x", " 1"));

}  // namespace
