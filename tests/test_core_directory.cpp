// What the core keeps in tables: services, siids, message ids, and the requests without an answer.
#include <deque>
#include <sstream>

#include "core_probe.h"

std::uint32_t& next_siid(directory& of);
template <std::uint32_t directory::*member>
struct opened {
  friend std::uint32_t& next_siid(directory& of) { return of.*member; }
};
template struct opened<&directory::m_next_siid>;

namespace {

using numbers = std::vector<std::uint32_t>;

struct services : seam_test {
  // All that can be seen of the siids, the message ids and what the components hold.
  std::string state() const {
    std::ostringstream text;
    for (std::uint32_t siid = 0; siid < 60; ++siid)
      if (const endpoint* found = of.find(siid))
        text << siid << "=" << found->role << found->of->name << found->of->is_signal << found->of->uses()
             << found->holder() << found->mid_first << " ";
    for (std::uint32_t id = 0; id < 40 * mid_ranges::size; id += mid_ranges::size)
      text << of.id_holder(id).component << "/" << of.id_holder(id).siid << " ";
    for (const peer* each : {&a, &b, &c})
      text << each->siids.size() << each->grants << " ";
    for (const char* const name : {"f", "s"})
      text << of.find_offered(name).get() << " ";
    return text.str();
  }

  directory::grant use(peer& by, const std::string& name) { return of.subscribe(by, of.find_offered(name)); }

  peer a{"a", {"/tmp/kxcore/a", 0, 0}, ""}, b{"b", {"/tmp/kxcore/b", 0, 0}, ""},
      c{"c", {"/tmp/kxcore/c", 0, 0}, ""};
  directory of;
  const std::uint32_t f = of.offer(a, "f", false);
  const std::uint32_t s = of.offer(a, "s", true);
};

}  // namespace

TEST_F(services, get_each_siid_once_before_the_first_comes_again) {
  next_siid(of) = 0x7FFFFFFF;
  const numbers expected = {0x7FFFFFFF, s + 2, s + 3};  // what is held is passed over
  EXPECT_EQ(expected, (numbers{of.offer(b, "1", false), of.offer(b, "2", false), of.offer(b, "3", false)}));
}

TEST_F(services, do_not_change_when_memory_fails) {
  use(b, "s");
  const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> rows = {
      {"offer a function", [this](auto& n) { of.offer(b, "a function with a long name " + n, false); }},
      {"offer a signal", [this](auto& n) { of.offer(b, "a signal with a long name " + n, true); }},
      {"use a function", [this](auto&) { use(c, "f"); }},
      {"use a signal", [this](auto&) { use(c, "s"); }},
      {"use it again", [this](auto&) { use(b, "s"); }}};
  for (std::size_t i = 0; i < 40 * rows.size(); ++i) {  // so often that each container has to grow
    const auto& [what, act] = rows[i % rows.size()];
    const std::string before = state(), name = std::to_string(i);
    without_memory([&, &does = act](int fails_at) {
      seam::fail(seam::NEW, 0, 0);
      EXPECT_EQ(before, state()) << what << " before allocation " << fails_at;
      seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
      does(name);
    });
    EXPECT_NE(before, state()) << what;
  }
  of.forget(b), of.forget(c);
  EXPECT_EQ(0u, of.find_offered("f")->uses()) << "a user is left over";
  for (std::uint32_t id = 0; id < 200 * mid_ranges::size; id += mid_ranges::size)
    EXPECT_EQ(nullptr, of.id_holder(id).component) << "a range is left over";
}

using ranges_of_message_ids = seam_test;

TEST_F(ranges_of_message_ids, are_used_again_when_64_others_are_free) {
  mid_ranges ranges;
  numbers taken;
  while (taken.size() < 65)
    taken.push_back(ranges.take({}));
  for (std::size_t i = 0; i < 64; ++i)
    ranges.give_back(taken[i]);
  const std::uint32_t fresh = ranges.take({});
  EXPECT_GT(fresh, taken.back());
  ranges.give_back(taken[64]);
  EXPECT_EQ(taken[0], ranges.take({})) << "the one that is free for longest";
  EXPECT_EQ(fresh + mid_ranges::size, ranges.take({}));
}

TEST_F(ranges_of_message_ids, are_disjoint_positive_and_come_to_an_end) {
  mid_ranges ranges;
  for (std::uint32_t expected = mid_ranges::size; !ranges.exhausted(); expected += mid_ranges::size) {
    const std::uint32_t first = ranges.take({});
    ASSERT_EQ(expected, first);
    ASSERT_LE(first + mid_ranges::size, 0x7FFFF000u);
  }
  ranges.give_back(8192);
  EXPECT_FALSE(ranges.exhausted());
  EXPECT_EQ(8192u, ranges.take({}));
  EXPECT_TRUE(ranges.exhausted());
  EXPECT_EQ(nullptr, ranges.holder_of(~0u).component);
}

TEST_F(ranges_of_message_ids, are_given_back_without_memory) {
  mid_ranges ranges;
  for (int i = 0; i < 1000; ++i) {
    const std::uint32_t first = ranges.take({});
    seam::fail(seam::NEW, ENOMEM);
    EXPECT_NO_THROW(ranges.give_back(first));
    seam::fail(seam::NEW, 0, 0);
  }
}

namespace {

struct requests : seam_test {
  void add(std::uint32_t first, std::uint32_t count = 1) {
    for (std::uint32_t id = first; id < first + count; ++id)
      open.add({1, 2, id, static_cast<std::uint8_t>(id)});
  }
  // The ids of those that are open, oldest first; closes them.
  numbers rest() {
    numbers ids;
    for (open_request taken; open.take_if([](const open_request&) { return true; }, taken);)
      ids.push_back(taken.msg_id);
    return ids;
  }
  static numbers from(std::uint32_t first, std::uint32_t count) {
    numbers ids;
    while (count-- > 0)
      ids.push_back(first++);
    return ids;
  }

  open_requests open;
};

}  // namespace

TEST_F(requests, are_closed_by_their_three_numbers_once_newest_first) {
  for (const std::uint8_t cmd : {std::uint8_t{7}, std::uint8_t{8}})
    open.add({1, 2, 5, cmd});
  for (const open_request& other : {open_request{9, 2, 5, 5}, {1, 9, 5, 5}, {1, 2, 9, 5}})
    EXPECT_FALSE(open.close(other.from, other.to, other.msg_id));
  EXPECT_TRUE(open.close(1, 2, 5));
  open_request taken = {};
  EXPECT_TRUE(open.take_if([](const open_request&) { return true; }, taken));
  EXPECT_EQ(7, taken.cmd);
  EXPECT_FALSE(open.close(1, 2, 5));
}

TEST_F(requests, are_taken_out_oldest_first_when_they_are_meant) {
  add(1, 5);
  open_request taken = {};
  EXPECT_TRUE(open.take_if([](const open_request& each) { return each.msg_id > 2; }, taken));
  EXPECT_EQ(3u, taken.msg_id);
  EXPECT_FALSE(open.take_if([](const open_request& each) { return each.msg_id == 3; }, taken));
  open.close(1, 2, 4);
  EXPECT_EQ((numbers{1, 2, 5}), rest());
}

TEST_F(requests, are_at_most_256_in_their_order_and_the_oldest_goes) {
  add(1, 8);
  for (std::uint32_t id = 1; id <= 3; ++id)
    open.close(1, 2, id);
  add(9, 251);  // the ring has grown
  open.close(1, 2, 5);
  open_request taken = {};
  EXPECT_TRUE(open.take_if([](const open_request&) { return true; }, taken));
  EXPECT_EQ(4u, taken.msg_id) << "256 have room";
  add(260, 2);
  EXPECT_TRUE(open.close(1, 2, 6)) << "those that are closed at the end made room";
  add(262, 2);
  EXPECT_EQ(from(8, 256), rest());
}

TEST_F(requests, take_no_memory_at_a_steady_rate) {
  add(1, 8);
  seam::fail(seam::NEW, ENOMEM);
  for (std::uint32_t id = 9; id < 1000; ++id)
    open.close(1, 2, id - 8), add(id);
  open.close(1, 2, 999), add(1000);  // and of the newest
  EXPECT_FALSE(seam::has_failed(seam::NEW));
  seam::fail(seam::NEW, 0, 0);
  EXPECT_EQ((numbers{992, 993, 994, 995, 996, 997, 998, 1000}), rest());
}

TEST_F(requests, without_memory_let_the_oldest_go) {
  seam::fail(seam::NEW, ENOMEM);
  add(1);
  EXPECT_EQ(numbers{}, rest());
  add(1, 8);
  seam::fail(seam::NEW, ENOMEM);
  add(9);
  EXPECT_EQ(from(2, 8), rest());
}
