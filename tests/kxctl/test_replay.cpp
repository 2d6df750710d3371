// What is taken from a recording to be sent again, and how answers are compared.
#include <sstream>

#include "pcapng.h"
#include "replay/comparison.h"
#include "shell.h"
#include "told.h"

#include <gtest/gtest.h>

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

recorded_calls calls_in(const std::vector<told>& all, const std::vector<std::string>& filtered = {}) {
  std::string bytes = pcapng_beginning();
  for (const told& each : all)
    append_packet(bytes, *parsed(each));
  std::istringstream file(bytes);
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

told offered_with_siid(std::uint32_t siid) {
  told rows = make_told(RECORD_SERVICES);
  KXmessage page;
  page << 1u, page << false, page << "sysmon.metric", page << 0u, page << siid, page << 0u, page << "sysmon",
      page << 1u;
  rows.payload.assign(reinterpret_cast<const char*>(page.data + page.offset),
                      static_cast<std::size_t>(page.size));
  return rows;
}

verdict_e compared(const std::optional<recorded_answer>& then, const std::optional<recorded_answer>& now,
                   const std::vector<std::string>& ignored = {}) {
  const auto described = description::parse(
      R"(<interface><method cmd="1" name="m"><arg direction="out" name="value" type="s"/></method></interface>)");
  return compare({MSG_REQ, 1, "", 0, then}, now, ignored_fields(ignored, &*described));
}

}  // namespace

TEST(recorded, requests_come_in_their_order_with_their_first_answers) {
  const told first = request(1, "load", 1 * ms), second = request(2, "memory", 2 * ms);
  const auto recorded =
      calls_in({first, second, answer_to(second, MSG_ERR, "no", 4 * ms),
                answer_to(first, MSG_RSP, "5", 7 * ms), answer_to(first, MSG_RSP, "6", 8 * ms)});
  EXPECT_EQ(R"(REQ 1 "load" = RSP "5" 6 ms, REQ 1 "memory" = ERR "no" 2 ms)", text_of(recorded.calls()));
}

TEST(recorded, requests_count_once_and_when_they_arrived) {
  told waiting = request(1, "late", 1 * ms), refused = request(2, "refused", 2 * ms);
  waiting.event = RECORD_QUEUED;
  told delivered = waiting;
  delivered.event = RECORD_DELIVERED;
  refused.event = RECORD_REFUSED;
  EXPECT_EQ(R"(REQ 1 "late")", text_of(calls_in({waiting, delivered, refused}).calls()));
}

TEST(recorded, only_what_is_asked_for_counts) {
  told other = request(1, "other", 1 * ms), management = request(2, "management", 2 * ms);
  other.service = "another.service";
  management.is_management = true;
  const told load = request(3, "load", 3 * ms);
  EXPECT_EQ(R"(REQ 1 "load")", text_of(calls_in({other, management, load}).calls()));
  told second = request(4, "second", 4 * ms);
  second.cmd = 2;
  EXPECT_EQ(R"(REQ 2 "second")", text_of(calls_in({load, second}, {"cmd=2"}).calls()));
}

TEST(recorded, signals_of_a_service_are_told_from_those_to_it_by_its_siid) {
  told to_service = request(0, "to it", 1 * ms), of_service = request(0, "of it", 2 * ms);
  to_service.type = of_service.type = MSG_SIG;
  of_service.src = 2, of_service.dst = 9;
  told to_another = of_service;
  to_another.to = "another";
  const auto recorded = calls_in({offered_with_siid(2), to_service, of_service, to_another});
  EXPECT_EQ(R"(SIG 1 "to it")", text_of(recorded.calls()));
  EXPECT_EQ(R"(SIG 1 "of it")", text_of(recorded.signals()));
}

TEST(recorded, the_siid_of_a_service_that_was_offered_later_is_in_the_answer) {
  told offer = request(7, "", 1 * ms);
  offer.is_management = true, offer.cmd = CMD_REG_SIGNAL, offer.dst = offer.src = 1;
  offer.payload =
      text_payload("sysmon") + text_payload("sysmon.metric") + text_payload("none") + text_payload("none");
  told granted = offer;
  granted.type = MSG_RSP;
  KXmessage siid;
  siid << 2;
  granted.payload.assign(reinterpret_cast<const char*>(siid.data + siid.offset), 5);
  told of_service = request(0, "of it", 2 * ms);
  of_service.type = MSG_SIG, of_service.src = 2, of_service.dst = 9;
  EXPECT_EQ(R"(SIG 1 "of it")", text_of(calls_in({offer, granted, of_service}).signals()));
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
