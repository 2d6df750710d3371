// Wireshark's view of a recording, by share/kestrix/kx.lua, beside kxctl's own.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "kxctl_run.h"
#include "pcapng.h"
#include "showing.h"

namespace {

using nlohmann::json;

constexpr char file[] = "/tmp/kxcore/wireshark.pcapng";

std::vector<std::string> lines_of(const std::string& command) {
  std::vector<std::string> lines;
  FILE* const output = popen(command.c_str(), "r");
  std::string line;
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) {
    if (c != '\n') {
      line += static_cast<char>(c);
    } else {
      lines.push_back(line);
      line.clear();
    }
  }
  pclose(output);
  return lines;
}

told request(std::uint32_t id, const std::string& payload) {
  told made;
  made.id = id;
  made.payload = payload;
  made.sent_ns = made.time_ns = 1'763'899'200'123'456'789 + id * 1'000'000ULL;
  made.time_ns += 1500;
  return made;
}

// The bytes of a literal, without the 00 that ends it.
template <std::size_t N>
std::string bytes_of(const char (&literal)[N]) {
  return {literal, N - 1};
}

// One value of each type; the two ends of their ranges.
const std::string values = bytes_of(
    "\x01\xfe\x02\xc8\x03\xff\xfe\x04\x01\x02\x05\xff\xff\xff\xfe\x06\xff\xff\xff\xff"
    "\x07\x06\x00grün\x00"
    "\x08\x00\x03\x0a\x0b\x0c\x09\x01\x0a\xff\xff\xff\xff\xff\xff\xff\xfe"
    "\x0b\xff\xff\xff\xff\xff\xff\xff\xff");

std::vector<told> recorded() {
  told offer = request(0x11111111, text_payload("sysmon"));
  offer.event = RECORD_RECEIVED;
  offer.is_management = true;
  offer.cmd = CMD_REG_FUNCTION;
  offer.to = "kxcore";
  told refused = offer;
  refused.event = RECORD_REFUSED;
  refused.reason = "somebody else offers it";
  told queued = request(3, "");
  queued.event = RECORD_QUEUED;
  told delivered = queued;
  delivered.event = RECORD_DELIVERED;
  delivered.time_ns += 7'000'000'000;
  told late = delivered.answer(MSG_ERR);
  told dropped = request(4, "");
  dropped.event = RECORD_DROPPED;
  dropped.lost = 17;
  told event = make_told(RECORD_EVENT);
  event.type = MSG_SIG;
  told waits = request(10, "");
  waits.event = RECORD_QUEUED;
  told in_vain = waits;
  in_vain.event = RECORD_DROPPED;
  told verdict = in_vain.answer(MSG_ERR);
  verdict.from = "kxcore";
  told again = request(11, "");
  again.event = RECORD_DELIVERED;
  told slow = again.answer(MSG_RSP);
  slow.event = RECORD_QUEUED;
  told arrived = slow;
  arrived.event = RECORD_DELIVERED;
  arrived.time_ns += 1'000'000;
  return {make_told(RECORD_COMPONENTS),
          offer,
          refused,
          request(1, text_payload("load")),
          request(1, text_payload("load")).answer(MSG_RSP),
          request(2, text_payload("a") + text_payload("")),
          request(2, bytes_of("\x08\0\0")).answer(MSG_ERR),
          queued,
          delivered,
          late,
          dropped,
          request(5, bytes_of("\x07\x03\0ab")),    // a string without its end
          request(6, bytes_of("\x07\0\0")),        // a count of 0
          request(7, "\x0c"),                      // no tag
          request(8, bytes_of("\x09\x01\x06\0")),  // cut off
          request(9, values),
          event,
          waits,
          in_vain,
          verdict,
          request(11, ""),
          again,
          slow,
          arrived,
          arrived,
          make_told(RECORD_MARK)};
}

void write_recording() {
  std::string bytes = pcapng_beginning();
  std::uint32_t sequence = 0;
  for (told each : recorded()) {
    each.sequence = ++sequence;  // as Wireshark numbers its frames
    append_packet(bytes, *parsed(each));
  }
  std::ofstream(file, std::ios::binary) << bytes;
}

// A column for each field, a text for each frame; several values have a comma between.
using columns = std::map<std::string, std::vector<std::string>>;

columns in_wireshark(const std::vector<std::string>& fields) {
  std::string command =
      "tshark -X lua_script:" KX_LUA " -2 -T fields -E separator='|' -r " + std::string(file);
  for (const std::string& each : fields)
    command += " -e " + each;
  columns shown;
  for (const std::string& line : lines_of(command + " 2>/dev/null")) {
    std::istringstream cells(line + '|');
    for (const std::string& each : fields)
      std::getline(cells, shown[each].emplace_back(), '|');
  }
  return shown;
}

class wireshark : public testing::Test {
 protected:
  void SetUp() override {
    if (lines_of("command -v tshark").empty()) GTEST_SKIP() << "there is no tshark";
  }
};

// Wireshark's names, and kxctl's.
const std::map<std::string, std::string> members = {{"kx.sequence", "sequence"},
                                                    {"kx.record_time", "time"},
                                                    {"kx.monotonic", "monotonic"},
                                                    {"kx.sent", "sent"},
                                                    {"kx.pid", "pid"},
                                                    {"kx.from", "from"},
                                                    {"kx.to", "to"},
                                                    {"kx.service", "service"},
                                                    {"kx.reason", "reason"},
                                                    {"kx.dst_siid", "dst_siid"},
                                                    {"kx.src_siid", "src_siid"},
                                                    {"kx.cmd", "cmd"},
                                                    {"kx.signature", "signature"},
                                                    {"kx.rest", "rest"},
                                                    {"kx.request_in", "request"},
                                                    {"kx.after", "after"}};

// What kxctl shows as one, as Wireshark does.
std::string cell_of(const json& object, const std::string& member) {
  if (!object.contains(member)) return member == "sent" ? "0" : "";
  return object[member].is_string() ? object[member].get<std::string>() : object[member].dump();
}

TEST_F(wireshark, has_the_fields_that_kxctl_shows) {
  write_recording();
  columns expected;
  std::vector<std::string> fields;
  const std::string events = "event=sent,queued,delivered,refused,dropped,received,event,mark,components";
  const auto objects = lines_of(kxctl_in_shell() + " --json show " + file + ' ' + events + " 2>/dev/null");
  for (const auto& each : members) {
    fields.push_back(each.first);
    for (const std::string& object : objects)
      expected[each.first].push_back(cell_of(json::parse(object), each.second));
  }
  EXPECT_EQ(in_wireshark(fields), expected);
}

TEST_F(wireshark, has_the_time_of_the_record_for_the_frame) {
  write_recording();
  columns shown = in_wireshark({"kx.record_time", "frame.time_epoch"});
  for (std::string& each : shown["frame.time_epoch"])
    each.erase(each.find('.'), 1);
  EXPECT_EQ(shown["frame.time_epoch"], shown["kx.record_time"]);
}

// The frames that have something in this column, with it.
std::string filled(const std::vector<std::string>& column) {
  std::string text;
  for (std::size_t i = 0; i < column.size(); ++i)
    if (!column[i].empty()) text += std::to_string(i + 1) + ": " + column[i] + "; ";
  return text;
}

const std::map<std::string, std::string> findings = {
    {"kx.command", "2: REG-FUNCTION; 3: REG-FUNCTION; "},
    {"kx.value.s", "2: sysmon; 3: sysmon; 4: load; 5: load; 6: a,; 16: grün; "},
    {"kx.value.c", "16: -2; "},
    {"kx.value.y", "16: 200; "},
    {"kx.value.n", "16: -2; "},
    {"kx.value.q", "16: 258; "},
    {"kx.value.i", "16: -2; "},
    {"kx.value.u", "16: 4294967295; "},
    {"kx.value.ay", "16: 0a0b0c; "},
    {"kx.value.b", "15: 1; 16: 1; "},
    {"kx.value.x", "16: -2; "},
    {"kx.value.t", "16: 18446744073709551615; "},
    {"kx.time", "5: 0.000002500; 7: 0.000002500; 10: 7.000002500; 20: 0.000002500; 24: 0.001002500; "},
    {"kx.answer_in", "4: 5; 6: 7; 8: 10; 18: 20; 22: 24; "},
    {"frame.comment", "3: somebody else offers it; "},
    {"frame.packet_flags_direction",
     "1: 0x00000000; 2: 0x00000001; 3: 0x00000001; 4: 0x00000002; 5: 0x00000002; 6: 0x00000002; "
     "7: 0x00000002; 8: 0x00000002; 9: 0x00000002; 10: 0x00000002; 11: 0x00000001; 12: 0x00000002; "
     "13: 0x00000002; 14: 0x00000002; 15: 0x00000002; 16: 0x00000002; 17: 0x00000000; 18: 0x00000002; 19: "
     "0x00000001; 20: 0x00000002; "
     "21: 0x00000002; 22: 0x00000002; 23: 0x00000002; 24: 0x00000002; 25: 0x00000002; 26: 0x00000000; "},
    {"_ws.expert.message",
     "2: No answer in this recording; 3: somebody else offers it,Refused: somebody else offers it; 7: The "
     "answer is ERR; "
     "10: The answer is ERR; 11: Records were lost before this,Dropped: ,No answer in this recording; "
     "12: It does not parse,No answer in this recording; 13: It does not parse,No answer in this recording; "
     "14: It does not parse,No answer in this recording; 15: It does not parse,No answer in this recording; "
     "16: No answer in this recording; 19: Dropped: ; 20: The answer is ERR; 21: No answer in this "
     "recording; "}};

TEST_F(wireshark, finds_what_there_is) {
  write_recording();
  std::vector<std::string> fields;
  for (const auto& each : findings)
    fields.push_back(each.first);
  std::map<std::string, std::string> found;
  for (const auto& each : in_wireshark(fields))
    found[each.first] = filled(each.second);
  EXPECT_EQ(found, findings);
}

TEST_F(wireshark, takes_nothing_for_a_record_whose_texts_do_not_fit_into_it) {
  std::string bytes = told{}.bytes();
  bytes[3] = 45;  // the length of its header
  entry wrong = {};
  wrong.bytes = bytes;
  std::string whole = pcapng_beginning();
  append_packet(whole, wrong);
  std::ofstream(file, std::ios::binary) << whole;
  EXPECT_EQ(filled(in_wireshark({"_ws.expert.message"})["_ws.expert.message"]),
            "1: No record of version 1; ");
}

TEST_F(wireshark, survives_records_that_are_cut_anywhere) {
  const std::string whole = request(1, values).bytes();
  std::string bytes = pcapng_beginning();
  for (std::size_t size = 1; size < whole.size(); ++size) {
    entry cut = {};
    cut.bytes = std::string_view(whole).substr(0, size);
    append_packet(bytes, cut);
  }
  std::ofstream(file, std::ios::binary) << bytes;
  const std::string messages = filled(in_wireshark({"_ws.expert.message"})["_ws.expert.message"]);
  EXPECT_EQ(messages.find("Lua Error"), std::string::npos) << messages;
}

}  // namespace
