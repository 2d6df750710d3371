// Records for reading, and as JSON.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "shell.h"
#include "showing.h"

namespace {

using nlohmann::json;

constexpr std::uint64_t noon_ns = 1'763'899'200'000'000'000;  // 2025-11-23 12:00:00 UTC

told request() {
  told made;
  made.time_ns = noon_ns + 123'456'789;
  made.payload = text_payload("load");
  return made;
}

std::string table(const std::vector<told>& records, bool has_header = false, bool has_colour = false) {
  setenv("TZ", "UTC", 1);
  tzset();
  return show_as(
      [=](std::ostream& to, names& known) { return make_table_view(to, known, has_header, has_colour); },
      records);
}

std::string table_line(const told& what) { return table({what}); }

json object(const told& what) { return json::parse(show_as(make_json_view, {what})); }

TEST(table, has_the_time_the_ends_the_type_the_service_the_command_and_the_values) {
  EXPECT_EQ(
      table_line(request()),
      "12:00:00.123456  watch         sysmon        REQ             sysmon.metric     1     \"load\"\n");
}

TEST(table, has_the_time_since_the_request) {
  EXPECT_EQ(
      table({request(), request().answer(MSG_RSP)}),
      "12:00:00.123456  watch         sysmon        REQ             sysmon.metric     1     \"load\"\n"
      "12:00:00.123457  sysmon        watch         RSP    1.00 us  sysmon.metric     1     \"load\"\n");
}

TEST(table, has_the_day_in_its_header) {
  EXPECT_EQ(table({request()}, true).substr(0, 92),
            "2025-11-23       FROM          TO            TYPE     AFTER  SERVICE           CMD   VALUES\n");
}

TEST(table, has_a_header_for_each_day) {
  told later = request();
  later.time_ns += 24ULL * 3600 * 1'000'000'000;
  const std::string shown = table({request(), later}, true);
  EXPECT_NE(shown.find("\n2025-11-24  "), std::string::npos) << shown;
}

TEST(table, has_one_header_on_a_day) {
  const std::string shown = table({request(), request()}, true);
  EXPECT_EQ(shown.find("FROM"), shown.rfind("FROM"));
}

TEST(table, widens_its_columns) {
  told longer = request();
  longer.from = "a-component-with-a-name";
  const std::string shown = table({longer, request()});
  EXPECT_EQ(shown.find("sysmon "), shown.rfind("  sysmon ") + 2 - shown.find('\n') - 1) << shown;
}

struct note {
  record_event_e event;
  const char* end;
};

class notes : public testing::TestWithParam<note> {};

TEST_P(notes, say_what_is_special) {
  told special = request();
  special.event = GetParam().event;
  special.reason = "nobody offers it";
  const std::string shown = table_line(special);
  EXPECT_NE(shown.find(GetParam().end), std::string::npos) << shown;
}

INSTANTIATE_TEST_SUITE_P(table, notes,
                         testing::Values(note{RECORD_SENT, "\"load\"\n"},
                                         note{RECORD_QUEUED,
                                              "-- waits in the core: the receiver's socket is full\n"},
                                         note{RECORD_DELIVERED, "-- has waited in the core\n"},
                                         note{RECORD_REFUSED, "-- refused: nobody offers it\n"},
                                         note{RECORD_DROPPED, "-- dropped: nobody offers it\n"}));

TEST(table, is_plain_without_colour) { EXPECT_EQ(table_line(request()).find('\x1b'), std::string::npos); }

TEST(table, has_red_failures) {
  told refused = request();
  refused.event = RECORD_REFUSED;
  EXPECT_EQ(table({refused}, false, true).substr(0, 5), "\x1b[31m");
}

TEST(table, has_red_errors) {
  EXPECT_EQ(table({request().answer(MSG_ERR)}, false, true).substr(0, 5), "\x1b[31m");
}

TEST(table, does_no_harm_to_a_terminal) {
  told hostile = request();
  hostile.from = "\x1b]0;x\x07";
  hostile.reason = hostile.service = hostile.from;
  hostile.event = RECORD_REFUSED;
  hostile.payload = text_payload(hostile.from);
  EXPECT_EQ(table_line(hostile).find('\x1b'), std::string::npos);
}

TEST(table, tells_losses_before_the_record_that_told_them) {
  told late = request();
  late.lost = 12;
  EXPECT_EQ(table_line(late).substr(0, 29), "(12 records were lost here)\n1");
}

TEST(table, tells_losses_that_a_record_told_that_is_left_out) {
  told left_out = request();
  left_out.lost = 12;
  left_out.cmd = 9;
  const std::string shown =
      show_as([](std::ostream& to, names& known) { return make_table_view(to, known, false, false); },
              {left_out, request()}, "cmd=1");
  EXPECT_EQ(shown.substr(0, 27), "(12 records were lost here)");
}

TEST(table, tells_losses_once) {
  told late = request();
  late.lost = 12;
  const std::string shown = table({late, request()});
  EXPECT_EQ(shown.find("lost"), shown.rfind("lost")) << shown;
}

TEST(table, shows_a_payload_that_does_not_parse) {
  told broken = request();
  broken.payload = "\xee";
  EXPECT_NE(table_line(broken).find("? ee"), std::string::npos);
}

struct member {
  const char* name;
  json value;
};

class members : public testing::TestWithParam<member> {};

TEST_P(members, have_what_the_record_has) {
  told refused = request();
  refused.event = RECORD_REFUSED;
  refused.reason = "no";
  refused.sent_ns = noon_ns;
  refused.sequence = 7;
  refused.lost = 3;
  EXPECT_EQ(object(refused)[GetParam().name], GetParam().value) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    json, members,
    testing::Values(member{"event", "REFUSED"}, member{"sequence", 7}, member{"lost", 3},
                    member{"time", noon_ns + 123'456'789}, member{"monotonic", (noon_ns + 123'456'789) / 2},
                    member{"sent", noon_ns}, member{"pid", 4711}, member{"from", "watch"},
                    member{"to", "sysmon"}, member{"service", "sysmon.metric"}, member{"reason", "no"},
                    member{"management", false}, member{"type", "REQ"}, member{"cmd", 1},
                    member{"dst_siid", 2}, member{"src_siid", 3}, member{"msg_id", 0x1001},
                    member{"signature", "s"}, member{"data", json::array({"load"})}));

class absent_members : public testing::TestWithParam<const char*> {};

TEST_P(absent_members, are_left_out) { EXPECT_FALSE(object(told{}).contains(GetParam())) << GetParam(); }

INSTANTIATE_TEST_SUITE_P(json, absent_members,
                         testing::Values("reason", "lost", "sent", "after", "request", "command", "rest",
                                         "names"));

TEST(json_lines, have_the_time_since_the_request) {
  const std::string lines = show_as(make_json_view, {request(), request().answer(MSG_RSP)});
  EXPECT_EQ(json::parse(lines.substr(lines.find('\n')))["after"], 1000);
}

TEST(json_lines, have_the_record_of_the_request) {
  told asked = request();
  asked.sequence = 5;
  const std::string lines = show_as(make_json_view, {asked, asked.answer(MSG_RSP)});
  EXPECT_EQ(json::parse(lines.substr(lines.find('\n')))["request"], 5);
}

TEST(json_lines, are_valid_whatever_the_bytes) {
  told hostile = request();
  hostile.from = "\xff\x01\"";
  hostile.payload = text_payload("\xff") + "\xee";
  EXPECT_EQ(object(hostile)["rest"], "ee");
}

TEST(json_lines, have_the_bytes_of_what_is_no_message) {
  const std::string whole = make_told(RECORD_REFUSED).bytes();
  std::ostringstream to;
  names known;
  const filter all({});
  const auto shown = make_json_view(to, known);
  audience(all, known, *shown, 0).take(whole.substr(0, whole.size() - 13));
  EXPECT_EQ(json::parse(to.str())["rest"], "00");
}

TEST(an_audience, wants_no_more_than_so_many) {
  std::ostringstream to;
  names known;
  const filter all({});
  const auto shown = make_json_view(to, known);
  audience heard(all, known, *shown, 2);
  heard.take(request().bytes());
  EXPECT_FALSE(heard.take(request().bytes()));
}

TEST(an_audience, counts_what_is_wanted_only) {
  std::ostringstream to;
  names known;
  const filter none({"cmd=9"});
  const auto shown = make_json_view(to, known);
  audience heard(none, known, *shown, 1);
  EXPECT_TRUE(heard.take(request().bytes()));
}

TEST(an_audience, ignores_one_component_also_before_it_is_registered) {
  const struct {
    const char *from, *to;
  } rows[] = {{"kxctl-1", "kxcore"}, {"kxcore", "kxctl-1"}, {"[/tmp/kxcore/kxctl-1]", "kxcore"}};
  for (const auto& row : rows) {
    std::ostringstream to;
    names known;
    const filter all({});
    const auto shown = make_json_view(to, known);
    audience heard(all, known, *shown, 0);
    heard.ignore("kxctl-1");
    told own = request();
    own.from = row.from;
    own.to = row.to;
    heard.take(own.bytes());
    EXPECT_EQ(to.str(), "") << row.from << " to " << row.to;
  }
}

TEST(an_audience, says_at_the_end_what_was_no_record) {
  std::ostringstream to;
  names known;
  const filter all({});
  const auto shown = make_json_view(to, known);
  audience heard(all, known, *shown, 0);
  heard.take("\x02");
  EXPECT_THROW(heard.complain(), failure);
}

}  // namespace
