#include "probe.h"

using connection = seam_test;

TEST_F(connection, names_the_handler_that_an_application_forgot) {
  component_probe component("c");
  KXmessage message;
  peer_info_t peer;
  KXstub(&component).connection_process_message(message);
  KXstub(&component).process_message(message, peer);
  KXproxy(&component).connection_process_message(message);
  const std::string error = "(process_message) - Error, this function should never be called";
  EXPECT_TRUE(seam::logged(error + " [virtual void KXconnection::process_message(KXmessage&)]]"));
  EXPECT_TRUE(
      seam::logged(error + "; [virtual void KXconnection::process_message(KXmessage&, peer_info_t&)]]"));
  EXPECT_TRUE(seam::logged(error + " [virtual void KXproxy::process_message(KXmessage&)]]\n"));
}
