#include "probe.h"

using namespace seam;

class stub : public core_test {
 protected:
  struct : stub_probe {
    using connection_probe::connection_probe;
    const char* get_xml_comment() const override { return "x"; }
    const char* get_interface_class() const override { return "i"; }
  } subject{&component};
};

TEST_F(stub, is_offered_with_its_descriptions_and_withdrawn_by_its_kind) {
  const std::string head = " 00 00 00 01 00 00 00 01 ", number = " 06 00 00 00 ",
                    texts = " 07 02 00 63 00 07 04 00 67 65 74 00 07 02 00 78 00 07 02 00 69 00";
  for (const auto kind : {KXconnection::SYNC, KXconnection::ASYNC, KXconnection::SGNL}) {
    const bool signal = kind == KXconnection::SGNL;
    answer(MSG_RSP, {17});
    EXPECT_EQ(1, subject.register_service("get", kind));
    EXPECT_EQ(
        1, times_logged(signal ? "Stub registered [get, siid=17]\n" : "Stub registered [c.get, siid=17]\n"));
    EXPECT_EQ(head + (signal ? "01 04" : "01 03") + texts + number + "0" + std::to_string(kind), asked());
    subject.disconnect(true);
    EXPECT_EQ(head + (signal ? "04 06" : "04 05") + number + "11", asked());
    subject.m_siid = no_siid, clear_lines();
  }
}

TEST_F(stub, may_try_until_it_is_registered_but_not_again_after_its_withdrawal) {
  subject.disconnect(true);
  EXPECT_EQ("", asked()) << "never registered";
  fail(SENDTO, EAGAIN, 3);
  EXPECT_EQ(1, subject.register_signal("get"));
  EXPECT_EQ("get 2 -1", subject.state());
  EXPECT_FALSE(logged("Stub registered"));
  subject.disconnect(true);
  EXPECT_EQ("", asked()) << "not registered";
  answer(MSG_ERR, {17});
  EXPECT_THROW(subject.register_synchronous("put"), KXerror::error_e);
  EXPECT_EQ("put 0 -1", subject.state());
  answer(MSG_RSP, {17});
  EXPECT_EQ(1, subject.register_signal("get"));
  for (const bool withdrawn : {false, true}) {
    asked();
    EXPECT_EQ(0, subject.register_synchronous("put")) << withdrawn;
    EXPECT_EQ("", asked()) << withdrawn;
    EXPECT_EQ("get 2 17", subject.state()) << withdrawn;
    subject.disconnect(true);
  }
}
