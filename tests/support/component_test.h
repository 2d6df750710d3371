// A component that reads and drops, for the tests of what all components do.
#ifndef TESTS_COMPONENT_TEST_H
#define TESTS_COMPONENT_TEST_H

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "other_thread.h"
#include "probe.h"

using ints = std::vector<int>;
using handler = std::function<int(int)>;

// A handler of timers or descriptors whose context is a `handler`.
inline int call(void* context, int value) { return (*static_cast<handler*>(context))(value); }

class component : public seam_test {
 protected:
  // A pipe with a byte to read, or without; its ends are closed at the end of the test.
  struct channel {
    explicit channel(bool readable = true) {
      EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
      EXPECT_EQ(readable ? 1 : 0, write(ends[1], "x", readable ? 1 : 0));
    }
    ~channel() {
      for (const int end : ends)
        if (end >= 0) close(end);
    }
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;
    int ends[2];
  };

  // Notes what happened, and in which turn of the loop: how many polls there have been.
  int note(const std::string& what, int result = 0) {
    happened += what + std::to_string(seam::count(seam::POLL)) + " ";
    return result;
  }
  handler noting(const std::string& what, int result = 0) {
    return [=](int) { return note(what, result); };
  }

  // Adds a stub that is bound to `siid`, and notes what it is handed and when it is disconnected.
  struct bound_stub : stub_probe {
    bound_stub(component& test, std::string called, unsigned int siid = 9, interface_type_e type = SYNC)
        : stub_probe(&test.c), m_test(test), m_called(std::move(called)) {
      m_interface_type = type;
      test.c.bind_siid(m_siid = siid, this);
      on_message = [this](KXmessage&) { m_test.note(m_called); };
    }
    ~bound_stub() override { m_test.c.m_connections.remove(this); }
    void disconnect(bool remove) override { m_test.happened += m_called + (remove ? "! " : " "); }

    component& m_test;
    const std::string m_called;
  };

  std::string happened;
  component_probe c{"comp", nullptr};
  KXmessage message = make_message(9, 7, MSG_REQ, 2, 6);
};

#endif
