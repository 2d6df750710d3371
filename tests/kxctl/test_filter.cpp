// What of the bus is to be seen.
#include <gtest/gtest.h>

#include "filter.h"
#include "shell.h"
#include "told.h"

namespace {

struct sample {
  const char* terms;
  bool matches;
};

class terms_on_a_request : public testing::TestWithParam<sample> {};

TEST_P(terms_on_a_request, select_or_leave_out) {
  told request = make_told(RECORD_REFUSED);  // of sysmon.metric, from watch to sysmon, cmd 1, id 0x1001
  EXPECT_EQ(filter({GetParam().terms}).matches(*parsed(request)), GetParam().matches) << GetParam().terms;
}

INSTANTIATE_TEST_SUITE_P(
    filter, terms_on_a_request,
    testing::Values(sample{"", true}, sample{"service=sysmon.metric", true}, sample{"service=sysmon.*", true},
                    sample{"service=sysmon", false}, sample{"service=a,sysmon.?etric", true},
                    sample{"service=a,b", false}, sample{"component=watch", true},
                    sample{"component=sysmon", true}, sample{"component=other", false},
                    sample{"from=watch", true}, sample{"from=sysmon", false}, sample{"to=sysmon", true},
                    sample{"to=watch", false}, sample{"type=REQ", true}, sample{"type=rsp,req", true},
                    sample{"type=SIG", false}, sample{"cmd=1", true}, sample{"cmd=2", false},
                    sample{"id=0x1001", true}, sample{"id=4097", true}, sample{"id=4096", false},
                    sample{"event=refused", true}, sample{"event=SENT", false}, sample{"mgmt", false},
                    sample{"!mgmt", true}, sample{"!type=REQ", false}, sample{"type!=REQ", false},
                    sample{"type!=SIG,ERR", true}, sample{"!type!=REQ", true}, sample{"type=REQ cmd=1", true},
                    sample{"type=REQ cmd=2", false}));

TEST(filter, tells_management_messages) {
  told offer;
  offer.is_management = true;
  EXPECT_TRUE(filter({"mgmt"}).matches(*parsed(offer)));
}

TEST(filter, takes_its_terms_from_several_arguments) {
  EXPECT_FALSE(filter({"type=REQ", "cmd=2"}).matches(*parsed(told{})));
}

TEST(filter, leaves_the_state_of_the_bus_out) {
  EXPECT_FALSE(filter({}).matches(*parsed(make_told(RECORD_COMPONENTS))));
}

TEST(filter, shows_the_state_of_the_bus_when_asked) {
  EXPECT_TRUE(filter({"event=components"}).matches(*parsed(make_told(RECORD_COMPONENTS))));
}

TEST(filter, shows_events) { EXPECT_TRUE(filter({}).matches(*parsed(make_told(RECORD_EVENT)))); }

TEST(filter, finds_no_command_in_a_datagram_without_a_header) {
  const std::string whole = make_told(RECORD_REFUSED).bytes();
  const std::string cut = whole.substr(0, whole.size() - 1);
  EXPECT_FALSE(filter({"cmd=0"}).matches(*entry::parse(cut)));
}

struct refusal {
  const char* terms;
  const char* why;
};

class terms_without_meaning : public testing::TestWithParam<refusal> {};

TEST_P(terms_without_meaning, are_refused_with_the_reason) {
  try {
    filter refused({GetParam().terms});
    ADD_FAILURE() << "taken: " << GetParam().terms;
  } catch (const failure& error) {
    EXPECT_STREQ(error.what(), GetParam().why);
    EXPECT_EQ(error.status, USAGE);
  }
}

INSTANTIATE_TEST_SUITE_P(
    filter, terms_without_meaning,
    testing::Values(
        refusal{"watch", "filter: 'watch' is no term: it wants KEY=VALUE[,VALUE], or mgmt"},
        refusal{"type=", "filter: 'type=' is no term: it wants KEY=VALUE[,VALUE], or mgmt"},
        refusal{"=x", "filter: '=x' is no term: it wants KEY=VALUE[,VALUE], or mgmt"},
        refusal{"!", "filter: '!' is no term: it wants KEY=VALUE[,VALUE], or mgmt"},
        refusal{"!=x", "filter: '!=x' is no term: it wants KEY=VALUE[,VALUE], or mgmt"},
        refusal{"mgmt=1",
                "filter: there is no 'mgmt'; there are service, component, from, to, type, cmd, id, event, "
                "mgmt"},
        refusal{"typ=REQ",
                "filter: there is no 'typ'; there are service, component, from, to, type, cmd, id, "
                "event, mgmt"},
        refusal{"type=CALL", "filter: 'CALL' is no type: there are REQ, RSP, ERR, SIG"},
        refusal{"event=late",
                "filter: 'late' is no event: there are SENT, QUEUED, DELIVERED, REFUSED, DROPPED, "
                "RECEIVED, COMPONENTS, SERVICES, EVENT, MARK"},
        refusal{"cmd=256", "filter: '256' is no cmd: a number of at most 255 is"},
        refusal{"cmd=-1", "filter: '-1' is no cmd: a number of at most 255 is"},
        refusal{"cmd=1x", "filter: '1x' is no cmd: a number of at most 255 is"},
        refusal{"id=0x100000000", "filter: '0x100000000' is no id: a number of at most 4294967295 is"},
        refusal{"id=99999999999999999999999",
                "filter: '99999999999999999999999' is no id: a number of at most "
                "4294967295 is"}));

struct hint {
  const char* terms;
  const char* components;
  const char* services;
};

class terms_for_the_core : public testing::TestWithParam<hint> {};

TEST_P(terms_for_the_core, name_the_components_that_it_need_not_leave_out) {
  EXPECT_EQ(filter({GetParam().terms}).components(), GetParam().components);
}

TEST_P(terms_for_the_core, name_the_services_that_it_need_not_leave_out) {
  EXPECT_EQ(filter({GetParam().terms}).services(), GetParam().services);
}

INSTANTIATE_TEST_SUITE_P(filter, terms_for_the_core,
                         testing::Values(hint{"type=REQ", "", ""}, hint{"component=a*", "a*", ""},
                                         hint{"service=b.*", "", "b.*"}, hint{"service=a,b", "", ""},
                                         hint{"service!=a", "", ""}, hint{"!component=a", "", ""},
                                         hint{"component=a service=b", "a", "b"}));

TEST(filter, does_not_trouble_the_core_with_a_name_that_cannot_be) {
  EXPECT_EQ(filter({"service=" + std::string(256, 'x')}).services(), "");
}

}  // namespace
