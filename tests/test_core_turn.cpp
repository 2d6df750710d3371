// The whole core: the order of a turn, the ends of processes, and the end of the bus.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>

#include "core_probe.h"

namespace {

class turns : public whole_core {
 protected:
  // Runs `act` in a process of its own, and waits for its end.
  static int elsewhere(const std::function<void()>& act) { return child_process(act).end(0); }

  // Serves until the line is written.
  void serve_until(const std::string& line) {
    for (int tries = 0; !seam::logged(line); subject.serve(), usleep(1000))
      ASSERT_LT(++tries, 9000) << line;
  }

  // How many batches the core takes from a flood of data before `done`.
  int batches_until(const std::function<bool()>& done) {
    seam::trace_level(6);
    const int before = seam::count(seam::RECVMMSG);
    int batches = 0;
    seam::before(seam::RECVMMSG, [&] {
      if (batches > 0 || seam::count(seam::RECVMMSG) > before + 5000) return;
      if (done()) batches = seam::count(seam::RECVMMSG) - before - 1;
      for (int i = 0; i < 17; ++i)
        other.data.send(fake_core::data_path, make_message(1, 0, MSG_SIG, 1, 1));
    });
    subject.serve();
    seam::before(seam::RECVMMSG, nullptr);
    return batches;
  }
  static constexpr int bound = (socket_queue / 256 + 1) * 16;  // in whole turns

  void kill_from(const raw_component& from) {
    from.mgmt.send(fake_core::mgmt_path, make_message(1, 1, MSG_SIG, CMD_KILL_COMPONENT, 5));
    subject.serve();
  }
};

}  // namespace

TEST_F(turns, take_data_before_the_management_that_followed_it) {
  for (const int sent : {0, 1, 16, 17, 255, 256, 257}) {
    ASSERT_EQ("", ask(client, CMD_REG_COMPONENT));
    proxy = grant(client, CMD_SUB_FUNCTION, "get").at(0);
    int room = 0;
    for (; room < sent && client.data.send(fake_core::data_path, make_message(get, proxy, MSG_SIG, 5, 1));
         ++room) {
    }
    seam::clear_lines();
    client.manage(CMD_UNREG_COMPONENT, "", 0, MSG_SIG);
    int arrived = 0;
    for (subject.serve(); server.data.receive_message().m_header->msg_type != MSG_NONE; subject.serve())
      ++arrived;
    EXPECT_EQ(room, arrived) << "of " << sent;
    EXPECT_TRUE(seam::logged("client (pid " + std::to_string(getpid()) + ") is gone: it unregistered"))
        << sent;
  }
}

TEST_F(turns, of_management_wait_for_no_more_data_than_a_full_queue) {
  raw_component stranger("stranger");
  const struct {
    raw_component& from;
    int batches;
  } rows[] = {{stranger, 0}, {client, bound}, {other, bound}};
  for (const auto& row : rows) {
    row.from.manage(CMD_SUB_FUNCTION, "x", 0);
    EXPECT_EQ(row.batches, batches_until([&] { return !row.from.mgmt.receive().empty(); }) / 16 * 16)
        << row.from.name;
  }
}

TEST_F(turns, take_the_data_of_a_process_before_its_end) {
  int sent = 0;
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT, "", 0);
    me.manage(CMD_SUB_FUNCTION, "get", 0);
    ints granted;
    for (KXmessage answer; granted.size() < 4; usleep(1000))
      if (me.mgmt.receive(answer) && answer.m_header->cmd == CMD_SUB_FUNCTION)
        for (int value; answer.pos < answer.size; granted.push_back(value))
          answer >> value;
    int room = 0;
    while (room < 270 &&
           me.data.send(fake_core::data_path, make_message(granted[1], granted[0], MSG_SIG, 5, 1)))
      ++room;
    _exit(room < 200 ? 0 : room - 200);
  });
  serve_until("mortal subscribed to");
  const int room = mortal.end(0);
  if (room == 0) GTEST_SKIP() << "the system gives the core no queue that is longer than a turn";
  for (subject.serve(); server.data.receive_message().m_header->msg_type != MSG_NONE; subject.serve())
    ++sent;
  EXPECT_EQ(200 + room, sent);
  EXPECT_TRUE(seam::logged("is gone: its process ended"));
}

TEST_F(turns, wait_before_the_end_of_a_process_for_no_more_data_than_a_full_queue) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT, "", 0);
    pause();
  });
  serve_until("mortal (pid");
  mortal.end(SIGKILL);
  EXPECT_EQ(bound, batches_until([] { return seam::logged("is gone: its process ended"); }) / 16 * 16);
}

TEST_F(turns, leave_a_component_to_the_children_of_its_process) {
  raw_component shared("shared");
  child_process first([&] { shared.manage(CMD_REG_COMPONENT, "", 0), pause(); });
  serve_until("shared (pid");
  EXPECT_EQ("RSP 101", shared.arrived(shared.mgmt));
  EXPECT_EQ("the sender is not registered", ask(shared, CMD_SUB_FUNCTION, "get"));
  first.end(SIGKILL);
  subject.serve();
  EXPECT_EQ("", ask(shared, CMD_SUB_FUNCTION, "get")) << "this process is not that which registered";
  unlink(shared.mgmt.path().c_str());
  EXPECT_EQ("", ask(other, CMD_REG_FUNCTION, "shared")) << "nothing is watched any more";
}

TEST_F(turns, take_nothing_from_another_process_in_a_components_place) {
  EXPECT_EQ(0, elsewhere([this] {
              client.data.send(fake_core::data_path, make_message(get, proxy, MSG_REQ, 5, 3));
            }));
  subject.serve();
  EXPECT_EQ("ERR 3 (another process has registered with this socket)", client.arrived());
  EXPECT_EQ(0, elsewhere([this] { client.manage(CMD_UNREG_COMPONENT, "", 0, MSG_SIG); }));
  subject.serve();
  EXPECT_EQ("REQ 4", pass(client, get, proxy, MSG_REQ, 4, server));
}

TEST_F(turns, do_not_end_by_the_word_of_others) {
  subject.m_running = true;
  kill_from(client);
  EXPECT_EQ(0, elsewhere([this] { subject.sendKillMsgToSelf(); }));
  subject.serve();
  EXPECT_TRUE(subject.m_running);
  EXPECT_EQ("", client.arrived(client.mgmt));
  subject.sendKillMsgToSelf();
  subject.serve();
  EXPECT_EQ("SIG " + std::to_string(own_message_id), client.arrived(client.mgmt));
}

TEST_F(turns, survive_malformed_datagrams) {
  raw_component stranger("stranger");
  for (const raw_component* const from : {&client, &stranger}) {
    from->data.send(fake_core::data_path, std::vector<unsigned char>(13));
    from->mgmt.send(fake_core::mgmt_path, std::vector<unsigned char>(2049));
    subject.serve();
  }
  for (const char* const name :
       {"client (1", "client (2", "[/tmp/kxcore/stranger] (1", "[/tmp/kxcore/stranger-d] (2"})
    EXPECT_TRUE(seam::logged("dropped a message of " + std::string(name) + " so far): it is malformed"))
        << name;
}

TEST_F(turns, survive_without_memory) {
  raw_component stranger("stranger whose name takes memory");
  const KXmessage management = other.make(CMD_SUB_FUNCTION, "get", 0),
                  data = make_message(get, 99, MSG_REQ, 5, 3);
  const std::string mgmt_path = fake_core::mgmt_path, data_path = fake_core::data_path;
  for (int fails_at = 1; fails_at < 60; ++fails_at) {
    for (const raw_socket* const from : {&other.mgmt, &stranger.mgmt})
      from->send(mgmt_path, management);
    for (const raw_socket* const from : {&client.data, &stranger.data})
      from->send(data_path, data);
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    subject.serve();
    seam::fail(seam::NEW, 0, 0);
    other.arrived(other.mgmt), client.arrived();
  }
  EXPECT_TRUE(seam::logged("no memory: a message is lost (2 so far)"));
  EXPECT_EQ("", ask(other, CMD_SUB_FUNCTION, "get"));
  EXPECT_EQ("REQ 4", pass(client, get, proxy, MSG_REQ, 4, server));
}

TEST_F(seam_test, a_core_that_cannot_begin_leaves_no_files) {
  core_surroundings around;
  for (const int sockets : {2, 3}) {
    seam::fail(seam::SOCKET, EMFILE, 1, sockets);
    EXPECT_THROW(probe_of<KXcore>(around.place, around.report), std::system_error) << sockets;
    for (const char* const path : {fake_core::mgmt_path, fake_core::data_path})
      EXPECT_NE(0, access(path, F_OK)) << path;
  }
}

namespace {

// Members that are in no one's way: nothing is at their paths.
class shutdowns : public seam_test {
 protected:
  shutdowns() {
    for (int i = 0; i < 200; ++i) {
      const std::string name = "member " + std::to_string(i);
      peers.add(std::make_unique<peer>(name, sender{"/tmp/kxcore/" + name, 0, 0}, name));
    }
  }
  int told() const {
    int count = 0;
    peers.for_each([&count](const peer& each) { count += each.is_told_to_end ? 1 : 0; });
    return count;
  }

  reporter report{false};
  roster peers{report};
  bus_shutdown end{peers};
};

}  // namespace

TEST_F(shutdowns, tell_three_at_a_time_and_one_for_each_that_went) {
  end.went(1);
  EXPECT_FALSE(end.has_begun());
  EXPECT_EQ(0, told());
  EXPECT_TRUE(end.step());
  EXPECT_TRUE(end.has_begun());
  EXPECT_EQ(3, told());
  EXPECT_TRUE(end.step());
  EXPECT_EQ(6, told());
  end.went(2);
  EXPECT_EQ(8, told());
}

TEST_F(shutdowns, tell_all_in_the_last_step_after_three_seconds) {
  int steps = 1, before_last = 0;
  for (; end.step(); ++steps)
    before_last = told();
  EXPECT_EQ(3000, (steps - 1) * bus_shutdown::interval_ms);
  EXPECT_EQ(3 * (steps - 1), before_last);
  EXPECT_EQ(200, told());
}

TEST_F(shutdowns, pass_over_who_is_gone) {
  peers.for_each([this](peer& each) { each.name != "member 7" ? peers.give_up(each, "") : (void)0; });
  end.step();
  EXPECT_EQ(1, told());
}

namespace {

class ends : public turns {
 protected:
  // Unblocks nothing: the core reads the signal from its descriptor.
  void SetUp() override {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT})
      sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, &m_before);
    turns::SetUp();
    fourth.emplace("fourth");
    ask(*fourth, CMD_REG_COMPONENT);
    subject.m_running = true;
  }
  void TearDown() override {
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
    turns::TearDown();
  }
  void take(int signal) { kill(getpid(), signal), subject.serve(); }
  int expire() {
    const timer_entry_t timer = subject.m_timers.front();
    return timer.handler(timer.context, timer.cookie);
  }
  std::vector<raw_component*> told() {
    std::vector<raw_component*> result;
    for (raw_component* const each : {&server, &client, &other, &*fourth})
      if (each->arrived(each->mgmt) == "SIG " + std::to_string(own_message_id)) result.push_back(each);
    return result;
  }

  std::optional<raw_component> fourth;

 private:
  sigset_t m_before;
};

}  // namespace

TEST_F(ends, come_when_all_have_left_the_bus) {
  take(SIGTERM);
  EXPECT_TRUE(seam::logged("stopping: 4 components are told to end"));
  EXPECT_EQ(bus_shutdown::interval_ms, subject.m_timers.front().to);
  raw_component late("late");
  EXPECT_EQ("the core is stopping", ask(late, CMD_REG_COMPONENT));
  int left = 0;
  for (auto next = told(); !next.empty(); next = told()) {
    EXPECT_EQ(left == 0 ? 3u : 1u, next.size()) << "at once";
    for (raw_component* const each : next) {
      EXPECT_TRUE(subject.m_running) << left;
      notify(*each, CMD_UNREG_COMPONENT);
      ++left;
    }
  }
  EXPECT_EQ(4, left);
  EXPECT_FALSE(subject.m_running);
}

TEST_F(ends, come_after_three_seconds_when_some_do_not_leave) {
  take(SIGQUIT);
  int steps = 1;
  for (; expire() == 0; ++steps)
    ASSERT_TRUE(subject.m_running) << steps;
  EXPECT_FALSE(subject.m_running);
  EXPECT_EQ(4u, told().size());
  EXPECT_EQ(3000, steps * bus_shutdown::interval_ms);
}

TEST_F(ends, come_at_once_at_the_second_signal) {
  take(SIGINT);
  EXPECT_TRUE(subject.m_running);
  take(SIGTERM);
  EXPECT_FALSE(subject.m_running);
}

TEST_F(ends, come_at_once_when_nobody_is_there) {
  for (raw_component* const each : {&server, &client, &other, &*fourth})
    notify(*each, CMD_UNREG_COMPONENT);
  EXPECT_TRUE(subject.m_running);
  take(SIGTERM);
  EXPECT_FALSE(subject.m_running);
}
