// Recordings, written and read.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "pcapng.h"
#include "shell.h"
#include "told.h"

namespace {

void append_number(std::string& to, std::uint32_t value, unsigned int width, bool is_big) {
  for (unsigned int i = 0; i < width; ++i)
    to += static_cast<char>(value >> 8 * (is_big ? width - 1 - i : i));
}

// Blocks as a machine of either byte order writes them.
struct machine {
  bool is_big;

  std::string number(std::uint32_t value, unsigned int width = 4) const {
    std::string bytes;
    append_number(bytes, value, width, is_big);
    return bytes;
  }
  std::string block(std::uint32_t type, const std::string& body) const {
    const std::string length = number(static_cast<std::uint32_t>(body.size() + 12));
    return number(type) + length + body + length;
  }
  std::string section() const {
    return block(0x0A0D0D0A, number(0x1A2B3C4D) + number(1, 2) + number(0, 2) + std::string(8, '\xff'));
  }
  std::string interface(std::uint32_t link = 147) const {
    return block(1, number(link, 2) + number(0, 2) + number(0));
  }
  std::string packet(const std::string& bytes, std::uint32_t of = 0) const {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    return block(6, number(of) + number(0) + number(0) + number(size) + number(size) + bytes);
  }
};

constexpr machine little = {false};
constexpr machine big = {true};

std::vector<std::string> packets_of(const std::string& file) {
  std::istringstream from(file);
  pcapng_reader reader(from, "FILE");
  std::vector<std::string> packets;
  for (std::string packet; reader.next(packet);)
    packets.push_back(packet);
  return packets;
}

std::string recording_of(const told& what) {
  std::string file = pcapng_beginning();
  append_packet(file, *parsed(what));
  return file;
}

using packets = std::vector<std::string>;

TEST(recording, has_the_records_verbatim) {
  const told what;
  EXPECT_EQ(packets_of(recording_of(what)), packets{what.bytes()});
}

class sizes : public testing::TestWithParam<std::size_t> {};

TEST_P(sizes, of_all_kinds_are_aligned) {
  told what;
  what.payload = std::string(GetParam(), 'x');
  what.reason = std::string(GetParam(), 'r');
  std::string file = recording_of(what);
  append_packet(file, *parsed(what));
  EXPECT_EQ(packets_of(file), (packets{what.bytes(), what.bytes()}));
}

INSTANTIATE_TEST_SUITE_P(recording, sizes, testing::Values(0, 1, 2, 3, 4));

class byte_orders : public testing::TestWithParam<machine> {};

TEST_P(byte_orders, are_both_read) {
  const machine& of = GetParam();
  EXPECT_EQ(packets_of(of.section() + of.interface() + of.packet("abcd")), packets{"abcd"});
}

INSTANTIATE_TEST_SUITE_P(recording, byte_orders, testing::Values(little, big));

TEST(recording, may_have_sections_of_several_machines) {
  EXPECT_EQ(packets_of(little.section() + little.interface() + little.packet("1111") + big.section() +
                       big.interface() + big.packet("2222") + little.section() + little.interface() +
                       little.packet("3333")),
            (packets{"1111", "2222", "3333"}));
}

TEST(recording, may_have_blocks_of_other_kinds) {
  EXPECT_EQ(packets_of(little.section() + little.block(5, "stat") + little.interface() +
                       little.block(0xBAD, std::string(2'000'000, 'x')) + little.packet("abcd")),
            packets{"abcd"});
}

TEST(recording, may_have_packets_of_other_kinds_beside) {
  EXPECT_EQ(packets_of(little.section() + little.interface(1) + little.interface() +
                       little.packet("tcp!", 0) + little.packet("abcd", 1)),
            packets{"abcd"});
}

TEST(recording, forgets_the_interfaces_of_the_section_before) {
  const std::string file =
      little.section() + little.interface() + little.section() + little.interface(1) + little.packet("tcp!");
  EXPECT_THROW(packets_of(file), failure);
}

TEST(recording, without_a_packet_is_empty) { EXPECT_EQ(packets_of(pcapng_beginning()), packets{}); }

struct broken {
  const char* name;
  std::string file;
  const char* why;
};

class broken_recordings : public testing::TestWithParam<broken> {};

TEST_P(broken_recordings, are_refused_with_the_reason) {
  try {
    packets_of(GetParam().file);
    ADD_FAILURE() << "taken: " << GetParam().name;
  } catch (const failure& error) {
    EXPECT_EQ(error.what(), std::string(GetParam().why)) << GetParam().name;
  }
}

// A packet block that says that it has `size` bytes.
std::string packet_of_size(std::uint32_t size) {
  return little.block(6, std::string(12, '\0') + little.number(size) + little.number(size) + "abcd");
}

const std::string beginning = little.section() + little.interface();
constexpr char no_recording[] = "FILE is no recording: it does not begin as pcapng does";

INSTANTIATE_TEST_SUITE_P(
    recording, broken_recordings,
    testing::Values(
        broken{"empty", "", no_recording}, broken{"short", "\x0a\x0d", no_recording},
        broken{"other", "\xd4\xc3\xb2\xa1 an older kind of recording", no_recording},
        broken{"section", little.section().substr(0, 20), "FILE: it breaks off, in the block at byte 0"},
        broken{"order", little.block(0x0A0D0D0A, "none of the two!"),
               "FILE: the byte order is none of the two, in the block at byte 0"},
        broken{"tiny section", little.block(0x0A0D0D0A, "").insert(8, little.number(0x1A2B3C4D)),
               "FILE: the length is wrong, in the block at byte 0"},
        broken{"other link", little.section() + little.interface(1) + little.packet("tcp!"),
               "FILE is a recording of something else: its link type is 1, that of kestrix is 147"},
        broken{"odd length", little.section() + little.number(5) + little.number(13),
               "FILE: the length is wrong, in the block at byte 28"},
        broken{"no length", little.section() + little.number(5) + little.number(8),
               "FILE: the length is wrong, in the block at byte 28"},
        broken{"cut in a type", beginning + "\x06", "FILE: it breaks off, in the block at byte 48"},
        broken{"cut in a packet", beginning + little.packet("abcd").substr(0, 33),
               "FILE: it breaks off, in the block at byte 48"},
        broken{"cut in a foreign block", beginning + little.number(9) + little.number(0xFFFFFFFC),
               "FILE: it breaks off, in the block at byte 48"},
        broken{"trailer", beginning + little.number(5) + little.number(12) + little.number(16),
               "FILE: the two lengths differ, in the block at byte 48"},
        broken{"interface", little.section() + little.block(1, ""),
               "FILE: too little is there, in the block at byte 28"},
        broken{"packet", beginning + little.block(6, std::string(16, '\0')),
               "FILE: too little is there, in the block at byte 48"},
        broken{"unknown interface", beginning + little.packet("abcd", 1),
               "FILE: the interface is unknown, in the block at byte 48"},
        broken{"long packet", beginning + packet_of_size(5),
               "FILE: the packet is longer than its block, in the block at byte 48"},
        broken{"longest packet", beginning + packet_of_size(0xFFFFFFFF),
               "FILE: the packet is longer than its block, in the block at byte 48"}));

TEST(recording, gives_what_is_whole_before_it_breaks_off) {
  std::istringstream from(beginning + little.packet("abcd") + "\x06");
  pcapng_reader reader(from, "FILE");
  std::string packet;
  reader.next(packet);
  EXPECT_EQ(packet, "abcd");
}

// A part of the last block of a recording that this machine has written, from its beginning.
std::uint32_t number_in_packet(const told& what, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, recording_of(what).data() + pcapng_beginning().size() + offset, sizeof number);
  return number;
}

TEST(recording, has_times_in_ns) {
  told what;
  what.time_ns = 0x0102030405060708;
  EXPECT_EQ(number_in_packet(what, 12), 0x01020304U);
}

TEST(recording, has_times_in_two_halves) {
  told what;
  what.time_ns = 0x0102030405060708;
  EXPECT_EQ(number_in_packet(what, 16), 0x05060708U);
}

struct place {
  record_event_e event;
  bool is_management;
  std::uint32_t interface;
  std::uint32_t direction;
};

class places : public testing::TestWithParam<place> {
 protected:
  told m_what = make_told(GetParam().event);
};

TEST_P(places, have_an_interface) {
  m_what.is_management = GetParam().is_management;
  EXPECT_EQ(number_in_packet(m_what, 8), GetParam().interface);
}

TEST_P(places, have_a_direction) {
  const std::size_t record = (m_what.bytes().size() + 3) / 4 * 4;
  EXPECT_EQ(number_in_packet(m_what, 28 + record + 4), GetParam().direction);
}

INSTANTIATE_TEST_SUITE_P(
    recording, places,
    testing::Values(place{RECORD_SENT, false, 1, 2}, place{RECORD_SENT, true, 0, 2},
                    place{RECORD_QUEUED, false, 1, 2}, place{RECORD_DELIVERED, false, 1, 2},
                    place{RECORD_REFUSED, false, 1, 1}, place{RECORD_DROPPED, false, 1, 1},
                    place{RECORD_RECEIVED, true, 0, 1}, place{RECORD_EVENT, false, 0, 0}));

TEST(recording, has_the_reason_as_a_comment) {
  told refused = make_told(RECORD_REFUSED);
  refused.reason = "nobody offers it";
  const std::uint16_t code_and_length[] = {1, 16};  // in the order of this machine
  EXPECT_NE(recording_of(refused).find(std::string(reinterpret_cast<const char*>(code_and_length), 4) +
                                       "nobody offers it"),
            std::string::npos);
}

}  // namespace
