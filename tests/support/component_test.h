// A component that reads and drops, for the tests of what all components do.
#ifndef TESTS_COMPONENT_TEST_H
#define TESTS_COMPONENT_TEST_H

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "probe.h"

using namespace seam;
using ints = std::vector<int>;
using handler = std::function<int(int)>;

// A handler of timers or descriptors whose context is a `handler`.
inline int call(void* context, int value) { return (*static_cast<handler*>(context))(value); }

inline std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A pipe with a byte to read, or without.
struct channel {
  explicit channel(bool readable = true) {
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    EXPECT_EQ(readable ? 1 : 0, write(ends[1], "x", readable ? 1 : 0));
  }
  ~channel() { close_end(0), close_end(1); }
  void close_end(int end) {
    if (ends[end] >= 0) close(std::exchange(ends[end], -1));
  }
  int ends[2];
};

class component : public seam_test {
 protected:
  component() { fake_clock(100); }

  // Notes what happened, and in which turn of the loop: how many polls there have been.
  int note(const std::string& what, int result = -1) {
    happened += what + std::to_string(count(POLL)) + " ";
    return result;
  }
  handler noting(const std::string& what) {
    return [=](int) { return note(what); };
  }

  // A stub that is bound to `siid` and notes what it is handed, and when it is disconnected.
  struct bound_stub : stub_probe {
    bound_stub(component& test, const std::string& called, interface_type_e type = SYNC,
               unsigned int siid = 9)
        : stub_probe(&test.c), m_test(test), m_called(called) {
      m_interface_type = type;
      test.c.bind_siid(m_siid = siid, this);
      on_message = [this](KXmessage&) { m_test.note(m_called); };
    }
    ~bound_stub() override { m_test.c.m_connections.remove(this); }
    void disconnect(bool remove) override { m_test.happened += m_called + (remove ? "! " : " "); }

    component& m_test;
    const std::string m_called;
  };

  // Runs the loop until it has nothing to wait for, calling `before_poll` in each turn.
  void run(const std::function<void()>& before_poll = nullptr) {
    before(POLL, before_poll);
    when_idle([this] {
      if (c.m_timers.empty()) c.sendKillMsgToSelf();
    });
    c.wait(true);
  }

  std::string happened;
  component_probe c{"comp", nullptr};
  KXmessage message = make_message(9, 7, MSG_REQ, 2, 6);
};

#endif
