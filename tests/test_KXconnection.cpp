#include <memory>

#include "probe.h"

using namespace seam;

class connection : public core_test {
 protected:
  stub_probe subject{&component};
  KXmessage message = make_message(7, 9, MSG_RSP, 42, 5);
};

TEST_F(connection, is_new_without_siid_kind_and_service) {
  EXPECT_EQ(" -1 -1", std::make_unique<stub_probe>(&component)->state());
  const auto proxy = std::make_unique<proxy_probe>(&component);
  EXPECT_EQ(" -1 -1 -1 0 0 0", proxy->state());
  EXPECT_EQ(nullptr, proxy->m_reply_interface);
  EXPECT_EQ(10u, proxy->m_timeout);
  EXPECT_EQ(3u, proxy_probe(&component, 3).m_timeout);
}

TEST_F(connection, names_the_kinds_of_services) {
  EXPECT_STREQ("SYNC", KXconnection::interface_type2str[KXconnection::SYNC]);
  EXPECT_STREQ("ASYNC", KXconnection::interface_type2str[KXconnection::ASYNC]);
  EXPECT_STREQ("SGNL", KXconnection::interface_type2str[KXconnection::SGNL]);
}

TEST_F(connection, gives_requests_no_id_that_means_something) {
  for (const unsigned int id : {0u, 1u, 0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u})
    EXPECT_EQ(id != 1 && id != 0x44444444, is_reserved_id(id)) << id;
}

TEST_F(connection, stamps_its_siid_on_what_it_sends_and_nothing_else) {
  for (const unsigned int siid : {no_siid, 261u}) {
    EXPECT_TRUE(subject.connection_send(message));
    EXPECT_EQ(bytes_of(make_message(7, siid, MSG_RSP, 42, 5)), core.data.receive());
    EXPECT_EQ(component.m_data_socket_name, core.data.sender());
    subject.m_siid = 261;
  }
}

TEST_F(connection, tells_when_nothing_was_sent) {
  component_probe bare("bare", nullptr);
  EXPECT_FALSE(stub_probe(&bare).connection_send(message)) << "0 bytes";
  EXPECT_EQ(bytes_of(make_message(7, no_siid, MSG_RSP, 42, 5)), bytes_of(message));
  fail(SENDTO, EAGAIN, 3);
  EXPECT_FALSE(subject.connection_send(message)) << "an error";
}

TEST_F(connection, receives_a_datagram_or_nothing_into_an_emptied_message) {
  using row = std::tuple<const char*, int, bool, int, double>;
  for (const auto& [arriving, failures, result, size, end] :
       {row{"0 0 0 1 0 0 0 2 4 3 0 0 0 4 9 1", 0, true, 2, 100.5}, row{"1 2 3", 0, true, 0, 100.5},
        row{"", 0, false, 0, 100.5}, row{"none", 0, false, 0, 110.5}, row{"1 2 3", 1, false, 0, 110.5}}) {
    SCOPED_TRACE(arriving);
    if (*arriving != 'n') core.data.send(component.m_data_socket_name, hex(arriving));
    fail(RECVFROM, EAGAIN, failures);
    message << 5, message.pos = 3;
    EXPECT_EQ(result, subject.connection_receive(message));
    EXPECT_EQ(std::tuple(size, 0, end), std::tuple(message.size, message.pos, now()));
  }
}

TEST_F(connection, default_handler_of_the_dispatch_writes_its_line) {
  subject.KXconnection::connection_process_message(message);
  EXPECT_TRUE(logged("[ERROR] KXconnection:"));
  EXPECT_TRUE(
      logged("(connection_process_message) - Error, this function should never be called "
             "[virtual void KXconnection::connection_process_message(KXmessage&)]]"));
}
