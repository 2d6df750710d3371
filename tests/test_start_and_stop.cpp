#include "KXinterface.h"
#include "component_test.h"

class start_and_stop : public component {
 protected:
  // A component that notes what its hooks are called for.
  struct hooked : probe_of<bare_component> {
    explicit hooked(std::string& noted) : probe_of("hooked", nullptr), happened(noted) {}
    void register_component() override { happened += "register "; }
    void unregister_component() override { happened += m_data_fd < 0 ? "too late " : "unregister "; }
    std::string& happened;
  };

  struct phases : KXinterface {
    phases(hooked& test, char name) : m_test(test), m_name(name) { test.add_interface(this); }
    void startup_phase0(KXcomponent* starting) override { note('0', starting); }
    void startup_phase1(KXcomponent* starting) override { note('1', starting); }
    void startup_phase2(KXcomponent* starting) override { note('2', starting); }
    void note(char phase, const KXcomponent* starting) {
      m_test.happened += {m_name, starting == &m_test ? phase : '?', ' '};
    }
    hooked& m_test;
    const char m_name;
  };

  // Close callbacks: one that fails, and one that stops.
  static int fail_to() { throw 1; }
  static int stop_too() {
    stopping->happened += "close ";
    stopping->stop();
    return -1;
  }
  static inline hooked* stopping;

  hooked subject{happened};
};

TEST_F(start_and_stop, all_interfaces_take_each_phase_before_any_begins_the_next) {
  const phases first(subject, 'a'), second(subject, 'b');
  subject.start(KXcomponent::CMP_START_AND_STOP);
  EXPECT_EQ("register a0 b0 a1 b1 a2 b2 unregister ", happened);
  EXPECT_FALSE(logged("No interfaces to process"));
}

TEST_F(start_and_stop, start_loops_or_stops_at_once) {
  for (const int mode : {0, 1, 7, -1}) {
    reset();
    hooked own(happened);
    before(POLL, [&] { own.sendKillMsgToSelf(); });
    own.start(static_cast<KXcomponent::cmp_start_e>(mode));
    EXPECT_EQ(mode == 0 ? 1 : 0, count(POLL)) << mode;
    EXPECT_EQ(-2, own.m_data_fd + own.m_mgmt_fd) << mode;
    EXPECT_TRUE(logged("(start) - No interfaces to process\n"));
  }
}

TEST_F(start_and_stop, stop_takes_the_component_off_the_bus_in_order_and_once) {
  bound_stub first(*this, "first"), second(*this, "second", KXconnection::SYNC, 10);
  stopping = &subject;
  subject.m_connections = {&first, &first, &second, &first};
  subject.add_close_cb(fail_to);
  EXPECT_EQ(0, subject.add_close_cb(stop_too));
  subject.m_running = true;
  before(CLOSE, [this] { EXPECT_EQ(-1, count(CLOSE) == 1 ? subject.m_data_fd : subject.m_mgmt_fd); });
  subject.stop();
  EXPECT_EQ("close first second first unregister ", happened) << "neighbours count once, and none is removed";
  EXPECT_EQ((ints{-1, -1, -1}), (ints{subject.m_data_fd, subject.m_mgmt_fd, subject.sendKillMsgToSelf()}));
  EXPECT_EQ((ints{-1, -1}), (ints{access("/tmp/kxcore/hooked", F_OK), access("/tmp/kxcore/hooked-d", F_OK)}));
  EXPECT_EQ((ints{true, 2}), (ints{subject.m_running, subject.m_nfds})) << "they are the loop's";
  EXPECT_EQ(3u, subject.m_connections.size());
  EXPECT_EQ(&subject, KXcomponent::static_kxc);
  EXPECT_EQ(stop_too, subject.m_close_cb);
  subject.stop();
  EXPECT_EQ(2, times_logged("(stop) - nothing to do")) << "from the callback, and again";
}

TEST_F(start_and_stop, a_close_callback_that_throws_leaves_a_component_that_can_stop) {
  subject.add_close_cb(fail_to);
  EXPECT_THROW(subject.stop(), int);
  subject.add_close_cb(nullptr);
  subject.stop();
  EXPECT_EQ("unregister ", happened);
}

TEST_F(start_and_stop, neither_start_nor_stop_nor_the_kill_message_takes_the_mutex) {
  fake_clock(-1);
  EXPECT_FALSE(waits_for(subject.m_mutex, [&] {
    subject.sendKillMsgToSelf();
    subject.start(KXcomponent::CMP_START_AND_STOP);
  }));
  EXPECT_EQ(-1, subject.m_data_fd);
}
