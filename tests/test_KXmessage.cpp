#include <memory>

#include "probe.h"

using message = seam_test;

TEST_F(message, is_new_with_a_header_of_zeros_and_no_payload) {
  const auto built = std::make_unique<KXmessage>();
  EXPECT_EQ(std::vector<unsigned char>(14), bytes_of(*built));
  EXPECT_EQ(std::pair(14, 0), std::pair(built->offset, built->pos));
}

TEST_F(message, copies_are_complete_and_have_a_header_of_their_own) {
  KXmessage source = make_message(0x01020304, 0x05060708, MSG_SIG, 0x0B, 0x0A0B0C0D), assigned;
  source << "abc";
  source.offset = 20, source.size = 1, source.pos = 1, source.data[2047] = 5;
  assigned = source;
  assigned = *&assigned;
  KXmessage constructed(source);
  source.m_header->cmd = source.data[2047] = 6;
  for (const KXmessage* const copy : {&constructed, &assigned}) {
    EXPECT_EQ(static_cast<const void*>(copy->data + 6), copy->m_header);
    EXPECT_EQ(hex("7 8 4 B A B C D 7 4 0 61 62 63 0"), bytes_of(*copy));
    EXPECT_EQ(std::pair(1, 5), std::pair(copy->pos, int{copy->data[2047]}));
  }
}

TEST_F(message, embeds_the_payload_of_a_message) {
  KXmessage inner = make_message(1, 2, MSG_SIG, 3, 4);
  inner << true, inner.pos = 1;
  inner << inner;
  EXPECT_EQ(hex("0 0 0 1 0 0 0 2 4 3 0 0 0 4 9 1 8 0 2 9 1"), bytes_of(inner));
}

TEST_F(message, writes_c_strings_with_its_writer_of_strings) {
  struct : KXmessage {
    void operator<<(const std::string& value) override { KXmessage::operator<<("<" + value + ">"); }
    using KXmessage::operator<<;
  } quoting;
  quoting << "ok";
  quoting << static_cast<const char*>(nullptr);
  EXPECT_EQ(hex("0 0 0 0 0 0 0 0 0 0 0 0 0 0 7 5 0 3C 6F 6B 3E 0 7 3 0 3C 3E 0"), bytes_of(quoting));
}

TEST_F(message, replaces_what_a_target_buffer_holds_even_when_nothing_is_left_to_read) {
  KXmessage source, target;
  source << source;
  source << source;
  for (const char* const payload : {"", "8 0 0", ""}) {
    target << 5, target.pos = 2;
    source >> target;
    EXPECT_EQ(hex("0 0 0 0 0 0 0 0 0 0 0 0 0 0 " + std::string(payload)), bytes_of(target));
    EXPECT_EQ(0, target.pos);
  }
}

TEST_F(message, does_not_compare_tags_and_does_not_read_into_a_constant) {
  KXmessage source;
  short value = 0;
  source << 0x01020304;
  source >> std::string("constant");
  source >> value;
  EXPECT_EQ(0x0102, value);
}
