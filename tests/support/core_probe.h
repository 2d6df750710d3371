// The core in the test's own process, whole or its rooms alone.
#ifndef TESTS_CORE_PROBE_H
#define TESTS_CORE_PROBE_H

#include <poll.h>
#include <sys/resource.h>

#include <filesystem>

#include "KXcore.h"
#include "child_process.h"
#include "core_scenes.h"
#include "longer_queues.h"
#include "socket_address.h"

struct core_surroundings {
  reporter report{false};
  bus_directory place{"/tmp/kxcore"};
};

class core_probe : private core_surroundings, public probe_of<KXcore> {
 public:
  core_probe() : probe_of(place, report) {}

  // Serves its descriptors until nothing is left to do.
  void serve() {
    for (int turns = 0; poll(m_fda, static_cast<nfds_t>(m_nfds), 0) > 0; ++turns) {
      ASSERT_LT(turns, 100'000) << "it does not come to rest";
      for (int i = 0; i < m_nfds; ++i)
        if (m_fda[i].revents != 0) m_fd_handlers[i].handler(m_fd_handlers[i].context, m_fda[i].fd);
    }
  }
};

// How many descriptors this process has.
inline long open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

inline void limit_descriptors(long count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(count);
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
}

// A socket file that a dead process has left.
inline void leave_dead_socket(const char* path) {
  const raw_socket living("/tmp/kxcore/living");
  EXPECT_EQ(0, link(living.path().c_str(), path));
}

// Calls `act` with the number of an allocation that fails meanwhile, from the first on, until it needs no
// more of them; what it throws for that is lost.
inline void without_memory(const std::function<void(int)>& act) {
  for (int fails_at = 1; fails_at < 300; ++fails_at) {
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    try {
      act(fails_at);
    } catch (const std::bad_alloc&) {
    }
    const bool needs_no_more = !seam::has_failed(seam::NEW);
    seam::fail(seam::NEW, 0, 0);
    if (needs_no_more) return;
  }
  ADD_FAILURE() << "it does not come to an end";
}

// The rooms between inbox and outlets, which believe what a component claims of its process.
class rooms : public bus_test {
 protected:
  void SetUp() override { play(everybody); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    management.serve({from.mgmt.path(), from.pid, from.uid}, KXmessage(message));
    peers.forget_gone();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    KXmessage taken = message;
    routes.serve({from.data.path(), from.pid, from.uid}, taken);
    peers.forget_gone();
  }
  void serve() override { peers.serve(false), peers.end_processes(), peers.forget_gone(); }

  // Gives a component to a user. Only root can.
  void give(const std::string& name, uid_t user) {
    at(name).uid = user;
    for (const raw_socket* const each : {&at(name).mgmt, &at(name).data})
      EXPECT_EQ(0, chown(each->path().c_str(), user, 0));
  }
  peer* registered(const std::string& name) { return peers.at_mgmt("/tmp/kxcore/" + name); }

  reporter report{false};
  strangers outsiders{report, "/tmp/kxcore/"};
  roster peers{report};
  registrar management{peers, outsiders, report, fake_core::data_path};
  router routes{peers, outsiders, report};
};

// The whole core, reached by its sockets.
class whole_core : public bus_test {
 protected:
  void SetUp() override { play(everybody); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    from.mgmt.send(fake_core::mgmt_path, message), serve();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    from.data.send(fake_core::data_path, message), serve();
  }
  void serve() override { subject.serve(); }

  static std::unique_ptr<core_probe> create() {
    const longer_queues queues;
    return std::make_unique<core_probe>();
  }

  const std::unique_ptr<core_probe> owned = create();
  core_probe& subject = *owned;
};

#endif
