#include "probe.h"

using client_component = seam_test;

// What else arrives during an exchange is for the siid 9: all its connections are handed each of it in turn,
// as one object.
TEST_F(client_component, hands_on_what_was_set_aside) {
  fake_core core;
  client_probe component("c");
  core.mgmt.send(component.m_mgmt_socket_name, hex("00"));
  for (const std::string end : {"04 0B 00 00 0B 00", "01 01 00 00 0B 07"})
    core.mgmt.send(component.m_mgmt_socket_name, hex("00 00 00 09 00 00 00 02 " + end));
  proxy_probe watchers[3] = {proxy_probe(&component), proxy_probe(&component), proxy_probe(&component)};
  std::vector<int> handled;
  for (const int i : {2, 0, 1}) {
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << 9; });
    EXPECT_EQ(1, watchers[i].subscribe_signal("s"));
    watchers[i].on_message = [&handled, i](KXmessage& message) {
      message << i;
      handled.push_back(100 * message.m_header->cmd + message.size + i);
    };
  }
  EXPECT_EQ(no_siid, watchers[0].m_service_siid & watchers[0].m_mid_end) << "missing in the reply";
  EXPECT_EQ(2, seam::times_logged("(interconnect_service) - Message added to waiting queue: id=0xb0"));
  core.mgmt.send(component.m_mgmt_socket_name, hex(""));
  EXPECT_EQ(0, watchers[0].subscribe_signal("s")) << "an empty datagram came";
  seam::before(seam::POLL, [&] { component.sendKillMsgToSelf(); });
  component.wait(true);
  EXPECT_EQ((std::vector{1105, 1111, 1117, 105, 111, 117}), handled);
}
