#include "probe.h"

using stub = seam_test;

TEST_F(stub, stays_bound_while_it_cannot_be_withdrawn) {
  fake_core core;
  client_probe component("c");
  stub_probe server(&component);
  server.disconnect(true);  // has nothing to withdraw
  seam::fake_clock(100);
  for (const int sends : {0, 1}) {
    seam::fail(seam::SENDTO, EAGAIN, 3 * sends);
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << 17; });
    EXPECT_EQ(1 - sends, server.register_synchronous("s"));
    seam::fail(seam::SENDTO, EAGAIN, 3 - 3 * sends);
    server.disconnect(true);
    EXPECT_EQ(1u - unsigned(sends), component.m_siid_map.count(17));
  }
}
