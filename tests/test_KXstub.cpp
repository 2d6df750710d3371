#include "probe.h"

using stub = seam_test;

TEST_F(stub, keeps_the_siid_that_it_was_granted) {
  fake_core core;
  client_probe component("c");
  stub_probe server(&component), other(&component);
  seam::fake_clock(100);
  for (int i = 0; i < 2; ++i)
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << 17; });
  seam::fail(seam::SENDTO, EAGAIN, 3);
  server.disconnect(true);  // sends nothing, and leaves the failure to the registration
  EXPECT_EQ(1, server.register_synchronous("s"));
  EXPECT_EQ(1, server.register_synchronous("s"));
  EXPECT_THROW(other.register_synchronous("t"), KXerror::error_e);
  EXPECT_EQ(17u, other.m_siid);
  EXPECT_EQ(0, server.register_synchronous("t"));
  EXPECT_TRUE(seam::logged("Stub already registered with siid=17"));
  server.disconnect(false);
  seam::fail(seam::SENDTO, EAGAIN, 3);
  server.disconnect(true);
  EXPECT_EQ(1u, component.m_siid_map.count(17));
  server.disconnect(true);
  EXPECT_EQ(0u, component.m_siid_map.count(17));
}
