#include "probe.h"

using message = seam_test;

TEST_F(message, embeds_payloads_in_copies_with_a_header_of_their_own) {
  KXmessage inner = make_message(0x01020304, 0x05060708, MSG_SIG, 0x0B, 0x0A0B0C0D), assigned;
  assigned = inner;
  inner << static_cast<const char*>(nullptr);
  assigned << inner;
  inner << inner;
  KXmessage copied(inner);
  copied << "ok";
  EXPECT_EQ(hex("1 2 3 4 5 6 7 8 4 B A B C D 8 0 4 7 1 0 0"), bytes_of(assigned));
  EXPECT_EQ(hex("1 2 3 4 5 6 7 8 4 B A B C D 7 1 0 0 8 0 4 7 1 0 0 7 3 0 6F 6B 0"), bytes_of(copied));
  assigned >> copied;
  EXPECT_EQ(4, copied.size) << "a read buffer is replaced";
}
