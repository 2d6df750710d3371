// Names for the commands and values of messages.
#include "names.h"

#include <gtest/gtest.h>

#include "bus_events.h"
#include "told.h"
#include "wording.h"

namespace {

constexpr char thermometer[] = R"(<interface><method cmd="1" name="read"><arg name="metric" type="s"/>
<arg direction="out" name="value" type="s" unit="kB"/></method></interface>)";

std::string values(const told& what, names& known) { return values_text(*parsed(what), known); }

told offer(const std::string& service, const std::string& comment) {
  told made = make_told(RECORD_RECEIVED);
  made.is_management = true;
  made.cmd = CMD_REG_FUNCTION;
  made.payload = text_payload("sysmon") + text_payload(service) + text_payload(comment) +
                 text_payload("none") + std::string("\x06\0\0\0\0", 5);
  return made;
}

// What the core tells of a service.
told event_of(const std::string& service, unsigned char what) {
  told event = make_told(RECORD_EVENT);
  event.type = MSG_SIG;
  event.cmd = what;
  event.service = service;
  return event;
}

class described : public testing::Test {
 protected:
  described() { m_request.payload = text_payload("load"); }

  names m_known{[this](const std::string& service) {
    ++m_fetched;
    return service == "sysmon.metric" ? thermometer : "none";
  }};
  int m_fetched = 0;
  told m_request;
};

TEST_F(described, commands_have_names) { EXPECT_EQ(command_text(*parsed(m_request), m_known), "read"); }

TEST_F(described, requests_have_names_for_values) {
  EXPECT_EQ(values(m_request, m_known), "metric=\"load\"");
}

TEST_F(described, answers_have_units) {
  told answer = m_request.answer(MSG_RSP);
  EXPECT_EQ(values(answer, m_known), "value=\"load\" kB");
}

TEST_F(described, errors_have_no_names) {
  told answer = m_request.answer(MSG_ERR);
  EXPECT_EQ(values(answer, m_known), "\"load\"");
}

TEST_F(described, values_of_other_types_have_no_names) {
  m_request.payload = std::string("\x09\x01", 2);
  EXPECT_EQ(values(m_request, m_known), "true");
}

TEST_F(described, values_behind_those_that_are_described_have_no_names) {
  m_request.payload += text_payload("more");
  EXPECT_EQ(values(m_request, m_known), "metric=\"load\" \"more\"");
}

TEST_F(described, services_are_asked_for_once) {
  command_text(*parsed(m_request), m_known);
  command_text(*parsed(m_request), m_known);
  EXPECT_EQ(m_fetched, 1);
}

TEST_F(described, management_messages_are_not_asked_for) {
  m_request.is_management = true;
  command_text(*parsed(m_request), m_known);
  EXPECT_EQ(m_fetched, 0);
}

TEST(names, are_learned_from_an_offer_that_is_granted) {
  names known;
  known.learn(*parsed(offer("sysmon.metric", thermometer)));
  EXPECT_EQ(command_text(*parsed(told{}), known), "1");
  known.learn(*parsed(event_of("sysmon.metric", EVENT_OFFERED)));
  EXPECT_EQ(command_text(*parsed(told{}), known), "read");
}

TEST_F(described, services_are_asked_again_when_they_were_offered_again) {
  command_text(*parsed(m_request), m_known);
  for (const unsigned char what : {EVENT_WITHDRAWN, EVENT_OFFERED})
    m_known.learn(*parsed(event_of("sysmon.metric", what)));
  command_text(*parsed(m_request), m_known);
  EXPECT_EQ(m_fetched, 2);
}

TEST(names, are_not_learned_from_another_command) {
  names known;
  told other = offer("sysmon.metric", thermometer);
  other.cmd = CMD_SUB_FUNCTION;
  known.learn(*parsed(other));
  known.learn(*parsed(event_of("sysmon.metric", EVENT_OFFERED)));
  EXPECT_EQ(command_text(*parsed(told{}), known), "1");
}

TEST(names, are_not_learned_for_the_services_of_the_core) {
  names known;
  known.learn(*parsed(offer("kxcore.directory", thermometer)));
  known.learn(*parsed(event_of("kxcore.directory", EVENT_OFFERED)));
  told request;
  request.service = "kxcore.directory";
  EXPECT_EQ(command_text(*parsed(request), known), "components");
}

TEST(names, of_events_are_known) {
  names known;
  told event = make_told(RECORD_EVENT);
  event.type = MSG_SIG;
  event.cmd = 8;
  EXPECT_EQ(command_text(*parsed(event), known), "does not read");
}

TEST(names, of_management_commands_are_known) {
  names known;
  EXPECT_EQ(command_text(*parsed(offer("a", "none")), known), "REG-FUNCTION");
}

}  // namespace
