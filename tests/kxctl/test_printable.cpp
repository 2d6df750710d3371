// Texts as people may see them.
#include "printable.h"

#include <gtest/gtest.h>

namespace {

struct sample {
  std::string bytes;
  const char* shown;
};

class texts : public testing::TestWithParam<sample> {};

TEST_P(texts, are_shown_without_harm) { EXPECT_EQ(printable(GetParam().bytes), GetParam().shown); }

INSTANTIATE_TEST_SUITE_P(printable, texts,
                         testing::Values(sample{"", ""}, sample{"sysmon.metric ~", "sysmon.metric ~"},
                                         sample{"\x1b[2J", "\\x1b[2J"}, sample{"\n\x7f", "\\x0a\\x7f"},
                                         sample{std::string(1, '\0'), "\\x00"}, sample{"grün", "grün"},
                                         sample{"€ \U0001f600", "€ \U0001f600"}, sample{"\xc3", "\\xc3"},
                                         sample{"\xc3x", "\\xc3x"}, sample{"\x80", "\\x80"},
                                         sample{"\xc0\xaf", "\\xc0\\xaf"}, sample{"\xc2\x9b", "\\xc2\\x9b"},
                                         sample{"\xe0\x80\x80", "\\xe0\\x80\\x80"},
                                         sample{"\xed\xa0\x80", "\\xed\\xa0\\x80"},
                                         sample{"\xf0\x80\x80\x80", "\\xf0\\x80\\x80\\x80"},
                                         sample{"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
                                         sample{"\xe2\x82", "\\xe2\\x82"}, sample{"\xff", "\\xff"}));

TEST(printable, counts_characters) { EXPECT_EQ(width_of("grün €"), 6U); }

TEST(printable, keeps_what_fits) { EXPECT_EQ(shortened("grün", 4), "grün"); }

TEST(printable, marks_what_it_leaves_out) { EXPECT_EQ(shortened("grüne", 4), "grü…"); }

TEST(printable, pads_by_characters) { EXPECT_EQ(padded("grün", 6), "grün  "); }

struct span {
  std::uint64_t ns;
  const char* text;
};

class spans : public testing::TestWithParam<span> {};

TEST_P(spans, have_three_digits_and_a_unit) { EXPECT_EQ(duration_text(GetParam().ns), GetParam().text); }

INSTANTIATE_TEST_SUITE_P(printable, spans,
                         testing::Values(span{0, "0.00 us"}, span{81'900, "81.9 us"}, span{999'000, "999 us"},
                                         span{1'000'000, "1.00 ms"}, span{1'204'000'000, "1.20 s"},
                                         span{61'000'000'000, "61.0 s"}));

}  // namespace
