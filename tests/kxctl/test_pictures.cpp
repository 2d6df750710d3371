// Records as pictures and figures.
#include <gtest/gtest.h>

#include <regex>

#include "sequence.h"
#include "showing.h"
#include "svg_layout.h"
#include "tracks.h"

namespace {

using nlohmann::json;

constexpr std::uint64_t us = 1000;

told signal() {
  told made;
  made.type = MSG_SIG;
  return made;
}

told failed(record_event_e event) {
  told made = make_told(event);
  made.reason = "no <room> & #1;";
  return made;
}

std::string mermaid(const told& what) { return show_as(make_mermaid_view, {told{}, what}); }

struct line {
  told what;
  const char* expected;
};

class mermaid_lines : public testing::TestWithParam<line> {};

TEST_P(mermaid_lines, show_the_kind_of_message) {
  const std::string shown = mermaid(GetParam().what);
  EXPECT_NE(shown.find(GetParam().expected), std::string::npos) << shown;
}

INSTANTIATE_TEST_SUITE_P(
    pictures, mermaid_lines,
    testing::Values(line{told{}, "participant p0 as watch\n"}, line{told{}, "participant p1 as sysmon\n"},
                    line{told{}, "  p0->>p1: sysmon.metric cmd 1\n"},
                    line{told{}.answer(MSG_RSP), "  p1-->>p0: RSP (1.00 us)\n"},
                    line{told{}.answer(MSG_ERR), "  p1-->>p0: ERR (1.00 us)\n"},
                    line{signal(), "  p0-)p1: SIG sysmon.metric cmd 1\n"},
                    line{failed(RECORD_REFUSED),
                         "  p0-xp2: sysmon.metric cmd 1 -- refused: no #60;room#62; & #35;1#59;\n"},
                    line{failed(RECORD_DROPPED), "p0-xp2: sysmon.metric cmd 1 -- dropped: "}));

TEST(pictures, leave_out_what_is_of_no_message) {
  EXPECT_EQ(show_as(make_mermaid_view, {make_told(RECORD_EVENT)}), "sequenceDiagram\n");
}

struct part {
  told what;
  const char* pattern;
};

class svg_parts : public testing::TestWithParam<part> {};

TEST_P(svg_parts, show_the_kind_of_message) {
  const std::string shown = show_as(make_svg_view, {told{}, GetParam().what});
  EXPECT_TRUE(std::regex_search(shown, std::regex(GetParam().pattern))) << shown;
}

INSTANTIATE_TEST_SUITE_P(
    pictures, svg_parts,
    testing::Values(part{told{}, "<text class=\"name\"[^>]*>watch</text>"},
                    part{told{}, "<g class=\"request\"><title>sysmon.metric cmd 1</title>"},
                    part{told{}, "<text class=\"time\"[^>]*>0.000000 s</text>"},
                    part{told{}.answer(MSG_RSP), "<text class=\"time\"[^>]*>0.000001 s</text>"},
                    part{told{}.answer(MSG_RSP), "<g class=\"answer\">"},
                    part{told{}.answer(MSG_ERR), "<g class=\"error\">"},
                    part{signal(), "<g class=\"signal\">"},
                    part{failed(RECORD_REFUSED),
                         "<g class=\"failure\"><title>[^<]*no &lt;room&gt; &amp; #1;<"}));

sequence sequence_of(const std::vector<told>& records, names& known) {
  sequence made(known);
  for (const told& each : records) {
    const parsed what(each);
    made.add({*what, {exchanges::NOTHING, nullptr}, 0});
  }
  return made;
}

// A message with a label of about this many characters.
told wordy(const char* from, const char* to, std::size_t characters) {
  told made;
  made.from = from;
  made.to = to;
  made.payload = text_payload(std::string(characters, 'x'));
  return made;
}

double label_width(const arrow& of) { return 6.65 * static_cast<double>(svg_layout::label(of).size()); }

TEST(svg, has_room_for_a_label_between_its_lifelines) {
  names known;
  const sequence of = sequence_of({wordy("a", "b", 40)}, known);
  EXPECT_GT(svg_layout(of).line(1) - svg_layout(of).line(0), label_width(of.arrows()[0]));
}

TEST(svg, has_room_for_a_label_over_several_lifelines) {
  names known;
  const sequence of = sequence_of({told{}, wordy("sysmon", "c", 1), wordy("watch", "c", 55)}, known);
  EXPECT_GT(svg_layout(of).line(2) - svg_layout(of).line(0), label_width(of.arrows()[2]));
}

TEST(svg, has_room_for_a_label_of_a_message_to_oneself) {
  names known;
  const sequence of = sequence_of({wordy("a", "a", 40), wordy("a", "b", 1)}, known);
  EXPECT_GT(svg_layout(of).line(1) - svg_layout(of).line(0),
            svg_layout::loop_width + label_width(of.arrows()[0]));
}

TEST(svg, has_room_for_a_label_behind_the_last_lifeline) {
  names known;
  const sequence of = sequence_of({wordy("b", "a", 1), wordy("a", "a", 40)}, known);
  EXPECT_GT(svg_layout(of).width() - svg_layout(of).line(1),
            svg_layout::loop_width + label_width(of.arrows()[1]));
}

TEST(svg, has_names_that_do_not_overlap) {
  names known;
  const sequence of = sequence_of({wordy("a-name-of-some-length-1", "a-name-of-some-length-2", 0)}, known);
  EXPECT_GT(svg_layout(of).line(1) - svg_layout(of).line(0),
            svg_layout::box_width("a-name-of-some-length-1"));
}

TEST(svg, has_the_times_beside_the_first_name) {
  names known;
  const sequence of = sequence_of({told{}}, known);
  EXPECT_LT(svg_layout(of).times(), svg_layout(of).line(0) - svg_layout::box_width("watch") / 2);
}

TEST(svg, shortens_long_labels) {
  names known;
  const sequence of = sequence_of({wordy("a", "b", 500)}, known);
  EXPECT_LT(svg_layout(of).width(), 700);
}

TEST(svg, has_the_names_again_before_the_next_rows) {
  names known;
  const sequence of = sequence_of(std::vector<told>(41), known);
  const svg_layout places(of);
  EXPECT_GT(places.part(1), places.row(39));
}

TEST(svg, has_the_next_rows_below_the_names) {
  names known;
  const sequence of = sequence_of(std::vector<told>(41), known);
  const svg_layout places(of);
  EXPECT_GT(places.row(40), places.part(1) + svg_layout::box_height);
}

TEST(svg, is_as_high_as_its_rows) {
  names known;
  const sequence of = sequence_of(std::vector<told>(41), known);
  EXPECT_GT(svg_layout(of).height(), svg_layout(of).row(40));
}

TEST(svg, may_be_empty) { EXPECT_NE(show_as(make_svg_view, {}).find("</svg>"), std::string::npos); }

slice from_to(std::uint64_t begin, std::uint64_t end, const char* component = "a") {
  return {component, "", begin, end, 0, false};
}

struct placing {
  const char* what;
  std::vector<slice> slices;
  std::vector<std::size_t> tracks;  // in the order of their beginnings
};

class placings : public testing::TestWithParam<placing> {};

TEST_P(placings, have_things_that_overlap_beside_each_other) {
  std::vector<slice> slices = GetParam().slices;
  assign_tracks(slices);
  std::vector<std::size_t> tracks;
  for (const slice& each : slices)
    tracks.push_back(each.track);
  EXPECT_EQ(tracks, GetParam().tracks) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    pictures, placings,
    testing::Values(placing{"behind", {from_to(1, 2), from_to(2, 3)}, {0, 0}},
                    placing{"overlapping", {from_to(1, 3), from_to(2, 4)}, {0, 1}},
                    placing{"within", {from_to(1, 4), from_to(2, 3)}, {0, 0}},
                    placing{"same begin", {from_to(1, 2), from_to(1, 4)}, {0, 0}},
                    placing{"third", {from_to(1, 3), from_to(2, 4), from_to(3, 5)}, {0, 1, 0}},
                    placing{"other component", {from_to(1, 3), from_to(2, 4, "b")}, {0, 0}}));

// The first event of this phase, and name unless that is empty.
json trace_event(const std::vector<told>& records, const std::string& phase, const std::string& name = "") {
  const json trace = json::parse(show_as(make_perfetto_view, records));
  for (const json& each : trace["traceEvents"])
    if (each["ph"] == phase && (name.empty() || each["name"] == name)) return each;
  return {};
}

std::vector<told> exchange_of(std::uint8_t answer) {
  told asked;
  asked.sent_ns = asked.time_ns - 10 * us;
  return {asked, asked.answer(answer)};
}

TEST(perfetto, shows_an_exchange_as_long_as_it_took) {
  EXPECT_EQ(trace_event(exchange_of(MSG_RSP), "X", "sysmon.metric 1")["dur"], 11.0);
}

TEST(perfetto, names_an_error) {
  EXPECT_EQ(trace_event(exchange_of(MSG_ERR), "X")["name"], "sysmon.metric 1 ERR");
}

TEST(perfetto, begins_at_0) { EXPECT_EQ(trace_event(exchange_of(MSG_RSP), "X")["ts"], 0.0); }

// Where the two ends of the arrow are.
std::vector<double> arrow_ends(int id) {
  const json trace = json::parse(show_as(make_perfetto_view, exchange_of(MSG_RSP)));
  std::vector<double> ends;
  for (const char* const phase : {"s", "f"})
    for (const json& each : trace["traceEvents"])
      if (each["ph"] == phase && each["id"] == id) ends.push_back(each["ts"]);
  return ends;
}

TEST(perfetto, has_an_arrow_from_the_request_to_the_server) {
  EXPECT_EQ(arrow_ends(2), (std::vector<double>{0, 10}));
}

TEST(perfetto, has_an_arrow_from_the_server_to_the_answer) {
  EXPECT_EQ(arrow_ends(3), (std::vector<double>{10.999, 10.999}));
}

TEST(perfetto, shows_a_request_without_an_answer) {
  EXPECT_EQ(trace_event({told{}}, "X")["name"], "sysmon.metric 1 (no answer)");
}

TEST(perfetto, does_not_show_an_answered_request_as_one_without_an_answer) {
  EXPECT_TRUE(trace_event(exchange_of(MSG_RSP), "X", "sysmon.metric 1 (no answer)").is_null());
}

TEST(perfetto, shows_a_signal) { EXPECT_EQ(trace_event({signal()}, "i")["name"], "SIG sysmon.metric 1"); }

TEST(perfetto, shows_what_is_refused) {
  EXPECT_EQ(trace_event({failed(RECORD_REFUSED)}, "i")["name"], "sysmon.metric 1: refused: no <room> & #1;");
}

TEST(perfetto, names_components) { EXPECT_EQ(trace_event({told{}}, "M")["args"]["name"], "watch"); }

std::string latencies(const std::vector<told>& records, bool as_json) {
  return show_as([as_json](std::ostream& to, names&) { return make_latency_view(to, as_json, true); },
                 records);
}

std::vector<told> calls(std::uint64_t count) {
  std::vector<told> all;
  for (std::uint64_t i = 1; i <= count; ++i) {
    told asked;
    asked.id = static_cast<std::uint32_t>(i);
    asked.time_ns += i * 1000 * us;
    told answer = asked.answer(i % 2 == 0 ? MSG_ERR : MSG_RSP);
    answer.time_ns = asked.time_ns + (count + 1 - i) * us;
    all.insert(all.end(), {asked, answer});
  }
  all.emplace_back();
  return all;
}

struct figure {
  const char* pointer;
  std::uint64_t value;
};

class figures : public testing::TestWithParam<figure> {};

TEST_P(figures, of_150_calls_of_1_to_150_us_and_one_without_an_answer) {
  EXPECT_EQ(json::parse(latencies(calls(150), true))[json::json_pointer(GetParam().pointer)],
            GetParam().value)
      << GetParam().pointer;
}

INSTANTIATE_TEST_SUITE_P(latencies, figures,
                         testing::Values(figure{"/calls", 151}, figure{"/errors", 75},
                                         figure{"/unanswered", 1}, figure{"/total/min", 1 * us},
                                         figure{"/total/p50", 75 * us}, figure{"/total/p99", 149 * us},
                                         figure{"/total/max", 150 * us}, figure{"/in_server/max", 150 * us},
                                         figure{"/waiting/max", 0}, figure{"/in_core/max", 0}));

TEST(latencies, are_a_table) {
  EXPECT_EQ(
      latencies(calls(1), false),
      "SERVICE                   CALLS  ERRORS  OPEN  WAITED              MIN      P50      P99      MAX\n"
      "sysmon.metric                 2       0     1  in all          1.00 us  1.00 us  1.00 us  1.00 us\n"
      "                                               in the core     0.00 us  0.00 us  0.00 us  0.00 us\n"
      "                                               for the server  0.00 us  0.00 us  0.00 us  0.00 us\n"
      "                                               in the server   1.00 us  1.00 us  1.00 us  1.00 us\n");
}

TEST(latencies, of_no_answer_are_none) {
  const std::string table = latencies({told{}}, false);
  EXPECT_NE(table.find("in all                -        -        -        -\n"), std::string::npos) << table;
}

TEST(latencies, leave_management_out) {
  told offer;
  offer.is_management = true;
  EXPECT_EQ(latencies({offer}, true), "");
}

}  // namespace
