// Files that recordings are written to, and the ring.
#include "recorder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "amount.h"
#include "pcapng.h"
#include "recording_file.h"
#include "ring.h"
#include "told.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t second = 1'000'000'000;

class recorders : public testing::Test {
 protected:
  recorders() {
    char pattern[] = "/tmp/kxctl-test-XXXXXX";
    m_directory = mkdtemp(pattern);
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~recorders() override { fs::remove_all(m_directory); }

  std::string path(const char* name = "bus.pcapng") const { return m_directory + '/' + name; }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& each : fs::directory_iterator(m_directory))
      names.push_back(each.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  static std::vector<std::uint32_t> sequences_in(const std::string& file) {
    std::ifstream from(file, std::ios::binary);
    pcapng_reader reader(from, file);
    std::vector<std::uint32_t> numbers;
    for (std::string packet; reader.next(packet);)
      numbers.push_back(entry::parse(packet)->head.sequence);
    return numbers;
  }

  std::string m_directory;
};

using names_t = std::vector<std::string>;
using numbers = std::vector<std::uint32_t>;

told numbered(std::uint32_t sequence, std::uint64_t at_s = 0) {
  told made;
  made.sequence = sequence;
  made.time_ns = 1'763'899'200 * second + at_s * second;
  return made;
}

TEST_F(recorders, have_what_is_wanted_in_the_file) {
  const auto to = make_file_recorder({path(), "", "", ""});
  to->take(*parsed(numbered(1)), true);
  to->take(*parsed(numbered(2)), false);
  to->take(*parsed(numbered(3)), true);
  to->flush();
  EXPECT_EQ(sequences_in(path()), (numbers{1, 3}));
}

TEST_F(recorders, have_a_readable_file_before_anything_comes) {
  make_file_recorder({path(), "", "", ""});
  EXPECT_EQ(sequences_in(path()), numbers{});
}

TEST_F(recorders, write_files_for_their_owner) {
  make_file_recorder({path(), "", "", ""});
  EXPECT_EQ(fs::status(path()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(recorders, count_messages_and_not_the_state_of_the_bus) {
  const auto to = make_file_recorder({path(), "", "", ""});
  to->take(*parsed(make_told(RECORD_COMPONENTS)), true);
  to->take(*parsed(told{}), true);
  EXPECT_EQ(to->count(), 1U);
}

class rotated : public recorders {
 protected:
  // Each record takes more than 100 bytes, and so each file has one.
  rotated() {
    const auto to = make_file_recorder({path(), "", "", "300:3"});
    for (std::uint32_t i = 1; i <= 6; ++i)
      to->take(*parsed(numbered(i)), true);
    to->flush();
  }
};

TEST_F(rotated, are_as_many_as_was_said) {
  EXPECT_EQ(files(), (names_t{"bus.pcapng", "bus.pcapng.1", "bus.pcapng.2"}));
}

TEST_F(rotated, have_the_older_records_in_the_file_with_the_higher_number) {
  EXPECT_LT(sequences_in(path("bus.pcapng.2")).back(), sequences_in(path("bus.pcapng.1")).front());
}

TEST_F(rotated, lose_nothing_between_two_files) {
  numbers all = sequences_in(path("bus.pcapng.2"));
  for (const char* const file : {"bus.pcapng.1", "bus.pcapng"})
    for (const std::uint32_t each : sequences_in(path(file)))
      all.push_back(each);
  EXPECT_EQ(all.back() - all.front() + 1, all.size());
}

TEST_F(recorders, say_which_file_cannot_be_made) {
  try {
    recording_file("/nowhere/bus.pcapng");
    ADD_FAILURE();
  } catch (const failure& error) {
    EXPECT_STREQ(error.what(), "/nowhere/bus.pcapng: No such file or directory");
  }
}

// As a full disk: a limit for the size of files.
class full_disk : public recorders {
 protected:
  full_disk() : m_file(path()) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_before);
    rlimit limit = m_before;
    limit.rlim_cur = 400;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~full_disk() override { setrlimit(RLIMIT_FSIZE, &m_before); }

  void fill() {
    std::string packet;
    append_packet(packet, *parsed(told{}));
    for (int i = 0; i < 10; ++i)
      m_file.write(packet);
  }

  recording_file m_file;
  rlimit m_before{};
};

TEST_F(full_disk, is_an_error_with_the_path) {
  try {
    fill();
    ADD_FAILURE();
  } catch (const failure& error) {
    EXPECT_EQ(error.what(), path() + ": File too large");
  }
}

TEST_F(full_disk, leaves_the_file_whole) {
  EXPECT_THROW(fill(), failure);
  EXPECT_EQ(sequences_in(path()).size(), 1U);
}

class ring_recorders : public recorders {
 protected:
  static told error(std::uint32_t sequence, std::uint64_t at_s) {
    told made = numbered(sequence, at_s);
    made.type = MSG_ERR;
    return made;
  }
  void take(const told& what, bool is_wanted = true) { m_recorder->take(*parsed(what), is_wanted); }

  std::unique_ptr<recorder> m_recorder = make_ring_recorder({path(), "30s", "type=ERR", ""});
};

TEST_F(ring_recorders, write_nothing_before_something_happens) {
  take(numbered(1));
  EXPECT_EQ(files(), names_t{});
}

TEST_F(ring_recorders, write_a_file_with_the_time_when_something_happens) {
  take(error(1, 5));
  EXPECT_EQ(files(), names_t{"bus-20251123-120005.pcapng"});
}

TEST_F(ring_recorders, have_what_was_before_whatever_the_time_of_day_is_set_to) {
  told records[] = {numbered(1, 0), numbered(2, 100), error(3, 31)};
  for (std::uint64_t at_s : {1, 11, 32})
    records[at_s / 11].monotonic_ns = at_s * 1'000'000'000;
  for (const told& each : records)
    take(each);
  EXPECT_EQ(sequences_in(path("bus-20251123-120031.pcapng")), (numbers{2, 3}));
}

TEST_F(ring_recorders, write_nothing_twice) {
  take(error(1, 0));
  take(error(2, 1));
  EXPECT_EQ(sequences_in(path("bus-20251123-120001.pcapng")), numbers{2});
}

TEST_F(ring_recorders, write_to_the_same_file_what_happens_in_the_same_second) {
  take(error(1, 0));
  take(error(2, 0));
  EXPECT_EQ(sequences_in(path("bus-20251123-120000.pcapng")), (numbers{1, 2}));
}

TEST_F(ring_recorders, keep_only_what_is_wanted) {
  take(numbered(1), false);
  take(error(2, 0));
  EXPECT_EQ(sequences_in(path("bus-20251123-120000.pcapng")), numbers{2});
}

TEST_F(ring_recorders, have_what_has_happened_even_when_it_is_not_wanted) {
  take(error(1, 0), false);
  EXPECT_EQ(sequences_in(path("bus-20251123-120000.pcapng")), numbers{1});
}

TEST_F(ring_recorders, count_files) {
  take(numbered(1));
  take(error(2, 0));
  EXPECT_EQ(m_recorder->count(), 1U);
}

struct file_name {
  const char* given;
  const char* written;
};

class file_names : public recorders, public testing::WithParamInterface<file_name> {};

TEST_P(file_names, get_the_time_before_their_ending) {
  fs::create_directory(path("a.d"));
  make_ring_recorder({path(GetParam().given), "30s", "type=REQ", ""})->take(*parsed(numbered(1)), true);
  EXPECT_TRUE(fs::exists(path(GetParam().written))) << GetParam().written;
}

INSTANTIATE_TEST_SUITE_P(recorders, file_names,
                         testing::Values(file_name{"x.pcapng", "x-20251123-120000.pcapng"},
                                         file_name{"x", "x-20251123-120000"},
                                         file_name{"a.d/x", "a.d/x-20251123-120000"},
                                         file_name{".x", ".x-20251123-120000"}));

TEST(rings, keep_no_more_bytes_than_was_said) {
  ring kept("10K");
  for (int i = 0; i < 100; ++i)
    kept.add(1, std::string(1000, 'x'));
  EXPECT_EQ(kept.take().size(), 9000U);
}

TEST(rings, of_bytes_keep_the_newest) {
  ring kept("10K");
  kept.add(1, std::string(9000, 'a'));
  kept.add(2, std::string(9000, 'b'));
  EXPECT_EQ(kept.take()[0], 'b');
}

TEST(rings, of_bytes_lose_nothing_before_its_time) {
  ring kept("1K");
  kept.add(1, std::string(2000, 'a'));
  EXPECT_EQ(kept.lost(), 0U);
}

TEST(rings, of_seconds_hold_their_bounds) {
  ring kept("30s");
  for (std::uint64_t i = 0; i < 70; ++i)
    kept.add(second, std::string(1 << 20, 'x'));
  EXPECT_LE(kept.take().size(), ring::most_bytes);
}

TEST(rings, of_seconds_count_what_there_was_no_room_for) {
  ring kept("30s");
  for (std::uint64_t i = 0; i < 70; ++i)
    kept.add(second, std::string(1 << 20, 'x'));
  EXPECT_EQ(kept.lost(), 7U);
}

TEST(rings, of_seconds_keep_what_is_just_as_old) {
  ring kept("30s");
  kept.add(0, "a");
  kept.add(30 * second, "b");
  EXPECT_EQ(kept.take(), "ab");
}

TEST(rings, of_seconds_bear_a_clock_that_is_set_back) {
  ring kept("30s");
  kept.add(100 * second, "a");
  kept.add(1 * second, "b");
  EXPECT_EQ(kept.take(), "ab");
}

struct size {
  const char* text;
  std::uint64_t bytes;
};

class sizes_in_bytes : public testing::TestWithParam<size> {};

TEST_P(sizes_in_bytes, are_read) { EXPECT_EQ(bytes_of(GetParam().text, "--x"), GetParam().bytes); }

INSTANTIATE_TEST_SUITE_P(amounts, sizes_in_bytes,
                         testing::Values(size{"1", 1}, size{"64K", 65536}, size{"8M", 8 << 20},
                                         size{"1G", 1 << 30}, size{"0.5K", 512}));

class wrong_sizes : public testing::TestWithParam<const char*> {};

TEST_P(wrong_sizes, are_refused) { EXPECT_THROW(bytes_of(GetParam(), "--x"), failure); }

INSTANTIATE_TEST_SUITE_P(amounts, wrong_sizes,
                         testing::Values("", "0", "M", "-1M", "8X", "8MM", "1e99", "9999G", "nan", " 1"));

TEST(amounts, of_time_are_read) { EXPECT_EQ(span_of("0.5s", "--x"), 500'000'000U); }

class wrong_spans : public testing::TestWithParam<const char*> {};

TEST_P(wrong_spans, are_refused) { EXPECT_THROW(span_of(GetParam(), "--x"), failure); }

INSTANTIATE_TEST_SUITE_P(amounts, wrong_spans,
                         testing::Values("", "s", "0s", "30", "30m", "-1s", "2000000s"));

TEST(amounts, say_of_which_option_they_are) {
  try {
    bytes_of("8X", "--ring");
    ADD_FAILURE();
  } catch (const failure& error) {
    EXPECT_STREQ(error.what(), "--ring: '8X' is not a size, such as 64K, 8M or 1G");
  }
}

class wrong_rotations : public recorders, public testing::WithParamInterface<const char*> {};

TEST_P(wrong_rotations, are_refused) {
  EXPECT_THROW(make_file_recorder({path(), "", "", GetParam()}), failure);
}

INSTANTIATE_TEST_SUITE_P(recorders, wrong_rotations,
                         testing::Values("10M", "10M:", ":5", "10M:0", "10M:x", "x:5"));

}  // namespace
