// What is taken from a recording to be sent again, and how answers are compared.
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "kxctl_run.h"
#include "pcapng.h"
#include "replay/comparison.h"
#include "shell.h"
#include "told.h"

namespace {

constexpr std::uint64_t ms = 1'000'000;

told request(std::uint32_t id, const std::string& text, std::uint64_t time_ns) {
  told made;
  made.id = id, made.payload = text_payload(text), made.time_ns = made.sent_ns = time_ns;
  return made;
}

told answer_to(const told& asked, std::uint8_t type, const std::string& text, std::uint64_t time_ns) {
  told made = asked.answer(type);
  made.payload = text_payload(text), made.time_ns = made.sent_ns = time_ns;
  return made;
}

std::string recording_of(const std::vector<told>& all) {
  std::string bytes = pcapng_beginning();
  for (const told& each : all)
    append_packet(bytes, *parsed(each));
  return bytes;
}

recorded_calls calls_in(const std::vector<told>& all, const std::vector<std::string>& filtered = {}) {
  std::istringstream file(recording_of(all));
  return recorded_calls(file, "file", "sysmon.metric", filter(filtered));
}

// "1 "load" = RSP "5" 3 ms": what was asked, the answer and how long it took.
std::string text_of(const std::vector<recorded_call>& calls) {
  std::ostringstream text;
  for (const recorded_call& each : calls) {
    text << (text.tellp() > 0 ? ", " : "") << msg_type_name(each.type) << " " << int(each.cmd) << " "
         << decode(each.payload).text();
    if (each.answer)
      text << " = " << msg_type_name(each.answer->type) << " " << decode(each.answer->payload).text() << " "
           << each.answer->took_ns / ms << " ms";
  }
  return text.str();
}

told state_with_owner(const std::string& component) {
  told rows = make_told(RECORD_SERVICES);
  KXmessage page;
  page << 1u, page << false, page << "sysmon.metric", page << 0u, page << 2u, page << 0u, page << component,
      page << 1u;
  rows.payload.assign(reinterpret_cast<const char*>(page.data + page.offset),
                      static_cast<std::size_t>(page.size));
  return rows;
}

told offered_by(const std::string& component, const std::string& service = "sysmon.metric") {
  told event = make_told(RECORD_EVENT);
  event.type = MSG_SIG, event.cmd = 3, event.service = service;
  event.payload = text_payload(component) + text_payload(service) + text_payload("");
  return event;
}

told signal_of(const std::string& sender, const std::string& receiver, const std::string& text,
               std::uint64_t time_ns) {
  told made = request(0, text, time_ns);
  made.type = MSG_SIG, made.from = sender, made.to = receiver;
  return made;
}

verdict_e compared(const std::optional<recorded_answer>& then, const std::optional<recorded_answer>& now,
                   const std::vector<std::string>& ignored = {}) {
  const auto described = description::parse(
      R"(<interface><method cmd="1" name="m"><arg direction="out" name="value" type="s"/></method></interface>)");
  return compare({MSG_REQ, 1, "", 0, then}, now, ignored_fields(ignored, &*described));
}

}  // namespace

TEST(recordings, requests_come_in_their_order_with_their_first_answers) {
  const told first = request(1, "load", 1 * ms), second = request(2, "memory", 2 * ms);
  const auto recorded =
      calls_in({first, second, answer_to(second, MSG_ERR, "no", 4 * ms),
                answer_to(first, MSG_RSP, "5", 7 * ms), answer_to(first, MSG_RSP, "6", 8 * ms)});
  EXPECT_EQ(R"(REQ 1 "load" = RSP "5" 6 ms, REQ 1 "memory" = ERR "no" 2 ms)", text_of(recorded.calls()));
}

TEST(recordings, requests_count_once_and_when_they_arrived) {
  told waiting = request(1, "late", 1 * ms), refused = request(2, "refused", 2 * ms);
  waiting.event = RECORD_QUEUED;
  told delivered = waiting;
  delivered.event = RECORD_DELIVERED;
  refused.event = RECORD_REFUSED;
  EXPECT_EQ(R"(REQ 1 "late")", text_of(calls_in({waiting, delivered, refused}).calls()));
}

TEST(recordings, only_what_is_asked_for_counts) {
  told other = request(1, "other", 1 * ms), management = request(2, "management", 2 * ms);
  other.service = "another.service";
  management.is_management = true;
  const told load = request(3, "load", 3 * ms);
  EXPECT_EQ(R"(REQ 1 "load")", text_of(calls_in({other, management, load}).calls()));
  told second = request(4, "second", 4 * ms);
  second.cmd = 2;
  EXPECT_EQ(R"(REQ 2 "second")", text_of(calls_in({load, second}, {"cmd=2"}).calls()));
}

TEST(recordings, signals_of_a_service_are_those_that_its_owner_sends) {
  const told load = request(1, "load", 1 * ms), to_it = signal_of("watch", "sysmon", "to", 2 * ms),
             of_it = signal_of("sysmon", "watch", "of", 3 * ms);
  const struct {
    const char* known_by;
    std::vector<told> records;
    const char *calls, *signals;
  } rows[] = {{"the state", {state_with_owner("sysmon"), to_it, of_it}, "SIG 1 \"to\"", "SIG 1 \"of\""},
              {"the event", {offered_by("sysmon"), to_it, of_it}, "SIG 1 \"to\"", "SIG 1 \"of\""},
              {"a request", {load, to_it, of_it}, R"(REQ 1 "load", SIG 1 "to")", "SIG 1 \"of\""},
              {"the newest event",
               {state_with_owner("watch"), offered_by("sysmon"), to_it, of_it},
               "SIG 1 \"to\"",
               "SIG 1 \"of\""},
              {"its own event",
               {offered_by("sysmon"), offered_by("watch", "another"), to_it, of_it},
               "SIG 1 \"to\"",
               "SIG 1 \"of\""},
              {"nothing", {of_it}, "", "SIG 1 \"of\""}};
  for (const auto& row : rows) {
    const auto recorded = calls_in(row.records);
    EXPECT_EQ(row.calls, text_of(recorded.calls())) << row.known_by;
    EXPECT_EQ(row.signals, text_of(recorded.signals())) << row.known_by;
  }
}

TEST(recordings, a_signal_to_several_subscribers_counts_once) {
  const told first = signal_of("sysmon", "watch", "of", 1 * ms),
             second = signal_of("sysmon", "log", "of", 1 * ms);
  EXPECT_EQ(R"(SIG 1 "of")", text_of(calls_in({offered_by("sysmon"), first, second}).signals()));
}

TEST(recordings, answers_are_found_whichever_siid_the_service_has) {
  told offer = request(1, "", 1 * ms);  // by another component, with an id that this one has used, too
  offer.is_management = true, offer.cmd = CMD_REG_FUNCTION, offer.dst = offer.src = 1;
  offer.payload = text_payload("sysmon") + text_payload("sysmon.metric");
  told granted_to_another = offer.answer(MSG_RSP);
  KXmessage siid;
  siid << 9;
  granted_to_another.to = "another";
  granted_to_another.payload.assign(reinterpret_cast<const char*>(siid.data + siid.offset),
                                    static_cast<std::size_t>(siid.size));
  const told before = request(1, "before", 2 * ms);
  told after = request(2, "after", 4 * ms);  // the service was offered anew
  after.dst = 7;
  EXPECT_EQ(R"(REQ 1 "before" = RSP "5" 1 ms, REQ 1 "after" = RSP "6" 1 ms)",
            text_of(calls_in({offer, granted_to_another, state_with_owner("sysmon"), before,
                              answer_to(before, MSG_RSP, "5", 3 * ms), after,
                              answer_to(after, MSG_RSP, "6", 5 * ms)})
                        .calls()));
}

TEST(comparison, tells_how_an_answer_differs) {
  const recorded_answer load{MSG_RSP, text_payload("5"), 1}, later{MSG_RSP, text_payload("5"), 2},
      other{MSG_RSP, text_payload("6"), 1}, refusal{MSG_ERR, text_payload("5"), 1},
      more{MSG_RSP, text_payload("5") + text_payload("5"), 1}, broken{MSG_RSP, "\x07", 1};
  const struct {
    std::optional<recorded_answer> then, now;
    std::vector<std::string> ignored;
    verdict_e verdict;
  } rows[] = {{load, later, {}, SAME},
              {load, other, {}, VALUE_DIFFERS},
              {load, more, {}, VALUE_DIFFERS},
              {load, broken, {}, VALUE_DIFFERS},
              {broken, broken, {}, SAME},
              {load, refusal, {}, TYPE_DIFFERS},
              {load, {}, {}, NOT_ANSWERED},
              {{}, load, {}, NOT_ANSWERED_THEN},
              {{}, {}, {}, SAME},
              {load, other, {"1"}, SAME},
              {load, other, {"value"}, SAME},
              {load, other, {"2"}, VALUE_DIFFERS},
              {load, more, {"value"}, VALUE_DIFFERS}};
  for (const auto& row : rows)
    EXPECT_EQ(row.verdict, compared(row.then, row.now, row.ignored)) << &row - rows;
}

TEST(comparison, leaves_out_only_fields_that_there_are) {
  for (const char* const wrong : {"0", "1x", "nothing", "-1"})
    EXPECT_THROW(ignored_fields({wrong}, nullptr), failure) << wrong;
}

namespace {

class replays : public bus_with_core {
 protected:
  void SetUp() override {
    bus_with_core::SetUp();
    const told load = request(1, "load", 1 * ms), memory = request(2, "memory", 2 * ms);
    told tick = request(0, "tick", 3 * ms);
    tick.type = MSG_SIG;
    std::ofstream("/tmp/kxcore/file") << recording_of({load, answer_to(load, MSG_RSP, "5", 2 * ms), memory,
                                                       answer_to(memory, MSG_ERR, "no", 2 * ms), tick});
  }
  void TearDown() override {
    unlink("/tmp/kxcore/file");
    bus_with_core::TearDown();
  }
};

}  // namespace

TEST_F(replays, send_each_request_when_the_one_before_is_answered) {
  stand_in server("server");
  ASSERT_TRUE(server.ask(CMD_REG_FUNCTION, "sysmon.metric"));
  run subject("kxctl --timeout 5 replay /tmp/kxcore/file sysmon.metric --rate max");
  const auto answer = [&server](msg_type_e type, const std::string& text) {
    const KXmessage asked = server.received();
    EXPECT_EQ(0u, server.data.receive().size()) << "another one has come";
    server.answer(asked, type, [&text](KXmessage& message) { message << text; });
    return decode(asked).text();
  };
  EXPECT_EQ(R"("load")", answer(MSG_RSP, "5"));
  EXPECT_EQ(R"("memory")", answer(MSG_RSP, "no"));
  EXPECT_EQ(R"("tick")", decode(server.received()).text());
  const std::string told = std::regex_replace(ended_with(subject), std::regex("[0-9.]+ .?s\\)"), "0)");
  EXPECT_EQ(
      "0: same        cmd 1 \"load\"  then RSP \"5\" (0)  now RSP \"5\" (0)\n"
      "type        cmd 1 \"memory\"  then ERR \"no\" (0)  now RSP \"no\" (0)\n"
      "sent        cmd 1 \"tick\"\n1 of 2 answers differ",
      told);
}

TEST_F(replays, that_expect_the_same_end_with_1_when_there_is_no_answer) {
  stand_in server("server");
  ASSERT_TRUE(server.ask(CMD_REG_FUNCTION, "sysmon.metric"));
  run subject("kxctl --timeout 0.1 replay /tmp/kxcore/file sysmon.metric --expect -n 1 --json");
  const std::string told = ended_with(subject);
  EXPECT_NE(std::string::npos, told.find(R"("now":null)")) << told;
  EXPECT_NE(std::string::npos, told.find("! kxctl: 1 of 1 answers are not as recorded")) << told;
  EXPECT_EQ('1', told[0]);
}

TEST_F(replays, as_a_server_answer_what_was_asked_and_refuse_the_rest) {
  run subject("kxctl replay /tmp/kxcore/file sysmon.metric --as server --rate max -n 3");
  EXPECT_EQ("0: ", kxctl("wait sysmon.metric"));
  EXPECT_EQ("0: s \"5\"", kxctl("call sysmon.metric:1 s load"));
  EXPECT_EQ("0: s \"5\"", kxctl("call sysmon.metric:1 s load"));
  EXPECT_EQ("1: ! kxctl: the recording has no answer to this request", kxctl("call sysmon.metric:2 s load"));
  EXPECT_EQ('0', ended_with(subject)[0]);
}

TEST_F(replays, say_what_is_wrong) {
  const struct {
    std::string line, end;
  } rows[] = {
      {"replay /tmp/kxcore/none x", "1: ! kxctl: /tmp/kxcore/none: No such file or directory"},
      {"replay /tmp/kxcore/file x", "1: ! kxctl: /tmp/kxcore/file holds no request to 'x'"},
      {"replay /tmp/kxcore/file x --as server", "1: ! kxctl: /tmp/kxcore/file holds no message of 'x'"},
      {"replay /tmp/kxcore/file sysmon.metric", "1: ! kxctl: nobody offers 'sysmon.metric'"},
      {"replay /tmp/kxcore/file x --rate 0", "2: ! kxctl: a rate is a number above 0, or max, not 0"},
      {"replay /tmp/kxcore/file x --rate 1x", "2: ! kxctl: a rate is a number above 0, or max, not 1x"},
      {"replay - x --step", "2: ! kxctl: with --step the recording is to be a file"}};
  for (const auto& row : rows)
    EXPECT_EQ(row.end, kxctl(row.line)) << row.line;
}
