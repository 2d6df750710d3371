#include <unistd.h>

#include "KXinterface.h"
#include "component_test.h"

using namespace seam;

class start_and_stop : public component {
 protected:
  // A component that notes what its hooks are called for.
  struct hooked : probe_of<bare_component> {
    explicit hooked(start_and_stop& test) : probe_of("hooked", nullptr), m_test(test) {}
    void register_component() override {
      m_test.happened += "register ";
      if (m_test.refused) throw KXerror::ERR_ERROR_REPLY;
    }
    void unregister_component() override {
      m_test.happened += m_data_fd < 0 ? "unregister, too late " : "unregister ";
    }
    start_and_stop& m_test;
  };

  struct phases : KXinterface {
    phases(start_and_stop& test, char name) : m_test(test), m_name(name) {}
    void startup_phase0(KXcomponent* starting) override { note('0', starting); }
    void startup_phase1(KXcomponent* starting) override { note('1', starting); }
    void startup_phase2(KXcomponent* starting) override { note('2', starting); }
    void note(char phase, const KXcomponent* starting) {
      EXPECT_EQ(&m_test.subject, starting);
      m_test.happened += {m_name, phase, ' '};
    }
    start_and_stop& m_test;
    const char m_name;
  };

  static int throw_once() {
    if (closings++ == 0) throw 1;
    return 0;
  }
  static int stop_too() {
    stopping->happened += "close ";
    stopping->subject.stop();
    return -1;
  }
  static int closings;
  static start_and_stop* stopping;

  bool refused = false;
  hooked subject{*this};
};

int start_and_stop::closings = 0;
start_and_stop* start_and_stop::stopping = nullptr;

TEST_F(start_and_stop, all_interfaces_take_each_phase_before_any_begins_the_next) {
  phases first(*this, 'a'), second(*this, 'b');
  subject.add_interface(&first);
  subject.add_interface(&second);
  subject.start(KXcomponent::CMP_START_AND_STOP);
  EXPECT_EQ("register a0 b0 a1 b1 a2 b2 unregister ", happened);
  EXPECT_FALSE(logged("No interfaces to process"));
}

TEST_F(start_and_stop, start_loops_or_stops_at_once) {
  for (const int mode : {0, 1, 7, -1}) {
    reset();
    hooked own(*this);
    before(POLL, [&] { own.sendKillMsgToSelf(); });
    own.start(static_cast<KXcomponent::cmp_start_e>(mode));
    EXPECT_EQ(mode == 0 ? 1 : 0, count(POLL)) << mode;
    EXPECT_EQ((ints{-1, -1}), (ints{own.m_data_fd, own.m_mgmt_fd})) << mode;
    EXPECT_TRUE(logged("[INFO] KXcomponent:"));
    EXPECT_TRUE(logged("(start) - No interfaces to process\n"));
    EXPECT_TRUE(logged("start: KESTRIX init_done, process is now ready to process data normally...\n"));
  }
}

TEST_F(start_and_stop, a_refused_registration_leaves_the_component_as_it_was) {
  phases never(*this, 'a');
  refused = true;
  subject.add_interface(&never);
  EXPECT_THROW(subject.start(KXcomponent::CMP_START_AND_LOOP), KXerror::error_e);
  EXPECT_EQ("register ", happened);
  EXPECT_EQ(0, access("/tmp/kxcore/hooked", F_OK));
}

TEST_F(start_and_stop, stop_takes_the_component_off_the_bus_in_order) {
  bound_stub first(*this, "first"), second(*this, "second", 10);
  for (bound_stub* const each : {&first, &second, &first})
    subject.m_connections.insert(subject.m_connections.end(), each == &first ? 2 : 1, each);
  subject.m_running = true;
  reset();
  subject.stop();
  EXPECT_EQ("first second first unregister ", happened) << "neighbours count once, and none is removed";
  EXPECT_EQ((std::vector{CLOSE, REMOVE, CLOSE, REMOVE}), calls());
  EXPECT_EQ((ints{-1, -1}), (ints{subject.m_data_fd, subject.m_mgmt_fd}));
  for (const char* const path : {"/tmp/kxcore/hooked", "/tmp/kxcore/hooked-d"})
    EXPECT_NE(0, access(path, F_OK)) << path;
  EXPECT_TRUE(subject.m_running) << "it is the loop's";
  EXPECT_EQ(2, subject.m_nfds);
  EXPECT_EQ(&subject, KXcomponent::static_kxc);
  EXPECT_EQ(-1, subject.sendKillMsgToSelf());
}

TEST_F(start_and_stop, a_second_stop_finds_nothing_to_do) {
  closings = 1;
  subject.add_close_cb(throw_once);
  subject.stop();
  clear_lines();
  subject.stop();
  EXPECT_EQ("unregister ", happened);
  EXPECT_EQ(2, closings);
  EXPECT_TRUE(logged("[DEBUG1] KXcomponent:"));
  EXPECT_TRUE(logged("(stop) - nothing to do"));
}

TEST_F(start_and_stop, the_close_callback_comes_first_stays_set_and_may_stop_in_vain) {
  stopping = this;
  bound_stub stub(*this, "stub");
  subject.m_connections.push_back(&stub);
  subject.add_close_cb(throw_once);
  subject.add_close_cb(stop_too);
  subject.stop();
  EXPECT_EQ("close stub unregister ", happened);
  EXPECT_EQ(stop_too, subject.m_close_cb);
  EXPECT_EQ(1, times_logged("nothing to do"));
}

TEST_F(start_and_stop, a_close_callback_that_throws_leaves_a_component_that_can_stop) {
  closings = 0;
  subject.add_close_cb(throw_once);
  EXPECT_THROW(subject.stop(), int);
  subject.stop();
  EXPECT_EQ("unregister ", happened);
  EXPECT_EQ(-1, subject.m_data_fd);
}

TEST_F(start_and_stop, neither_start_nor_stop_nor_the_kill_message_takes_the_mutex) {
  EXPECT_FALSE(waits_for(subject.m_mutex, [&] { subject.sendKillMsgToSelf(); }));
  EXPECT_FALSE(waits_for(subject.m_mutex, [&] { subject.start(KXcomponent::CMP_START_AND_STOP); }));
  EXPECT_EQ(-1, subject.m_data_fd);
}
