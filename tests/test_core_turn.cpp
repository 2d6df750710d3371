// The whole core: the order of a turn, the ends of processes, and the end of the bus.
#include <unistd.h>

#include <csignal>

#include "core_probe.h"

namespace {

class turns : public whole_core {
 protected:
  // Runs `act` in a process of its own, and waits for its end.
  static void elsewhere(const std::function<void()>& act) { child_process(act).end(0); }

  // Serves until the line is written.
  void serve_until(const std::string& line) {
    for (int tries = 0; !seam::logged(line); subject.serve(), usleep(1000))
      ASSERT_LT(++tries, 9000) << line;
  }

  // A component of this name, whose process ends with the core's knowledge when it is told to.
  std::unique_ptr<child_process> register_elsewhere(const std::string& name) {
    raw_component& mortal = at(name);
    auto process = std::make_unique<child_process>([&mortal] { mortal.manage(CMD_REG_COMPONENT), pause(); });
    serve_until(name + " (pid " + std::to_string(process->pid()) + ") registered");
    return process;
  }

  // How many batches the core takes from a flood of data, or of management, before `done`.
  int batches_until(const std::function<bool()>& done, const char* flooded = fake_core::data_path) {
    seam::trace_level(6);
    const raw_socket& flooder = at("stranger").data;
    const int before = seam::count(seam::RECVMMSG);
    int batches = 0;
    seam::before(seam::RECVMMSG, [&] {
      if (batches > 0 || seam::count(seam::RECVMMSG) > before + 5000) return;
      if (done()) batches = (seam::count(seam::RECVMMSG) - before - 1) / 16 * 16;
      for (int i = 0; i < 17; ++i)
        flooder.send(flooded, std::vector<unsigned char>(1));
    });
    subject.serve();
    seam::before(seam::RECVMMSG, nullptr);
    return batches;
  }
  static constexpr int bound = (socket_queue / 256 + 1) * 16;  // in whole turns

  // Sends a signal to the service of whose user these are the siids, so often; how often there was room.
  static int flood(const raw_component& from, unsigned int service, unsigned int user, int times) {
    int room = 0;
    while (room < times && from.data.send(fake_core::data_path, make_message(service, user, MSG_SIG, 5, 1)))
      ++room;
    return room;
  }

  // Serves until nothing comes to the server any more; how many messages have come.
  int count_at_server() {
    int count = 0;
    for (subject.serve(); !at("server").data.receive().empty(); subject.serve())
      ++count;
    return count;
  }
};

}  // namespace

TEST_F(turns, take_data_before_the_management_that_followed_it) {
  for (const int sent : {0, 1, 16, 17, 256, 257, 512}) {
    play("client registers; client uses get; other uses get; forget");
    int room = flood(at("client"), (*this)["get"], (*this)["client.get"], sent);
    room += flood(at("other"), (*this)["get"], (*this)["other.get"], sent - room);
    at("client").manage(CMD_UNREG_COMPONENT, "", MSG_SIG);
    EXPECT_EQ(room, count_at_server()) << "of " << sent;
    EXPECT_TRUE(seam::logged("is gone: it unregistered")) << sent;
  }
}

TEST_F(turns, of_management_wait_for_no_more_data_than_a_full_queue) {
  for (const std::string name : {"late", "client"}) {
    at(name).manage(CMD_SUB_FUNCTION, "x");
    EXPECT_EQ(name == "client" ? bound : 0, batches_until([&] { return !at(name).mgmt.receive().empty(); }));
  }
}

TEST_F(turns, of_management_wait_when_one_of_its_senders_is_registered) {
  at("stranger").manage(CMD_SUB_FUNCTION, "x");
  flood(at("client"), (*this)["get"], (*this)["client.get"], 1);
  at("client").manage(CMD_UNREG_COMPONENT, "", MSG_SIG);
  EXPECT_EQ(1, count_at_server());
}

TEST_F(turns, keep_the_management_that_waits_when_more_comes) {
  at("client").manage(CMD_SUB_FUNCTION, "x");
  int batches = 0;
  batches_until([&] {
    if (++batches == 40) at("server").manage(CMD_SUB_FUNCTION, "x");
    return batches > 100;
  });
  play(">> client = ERR 103 (nobody offers 'x'); >> server = ERR 104 (nobody offers 'x')");
}

TEST_F(turns, take_the_data_of_a_process_before_its_end) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT), me.manage(CMD_SUB_FUNCTION, "get");
    std::vector<unsigned int> granted;
    for (KXmessage answer; granted.size() < 4; usleep(1000))
      if (me.mgmt.receive(answer) && answer.m_header->cmd == CMD_SUB_FUNCTION)
        for (int value; answer.pos < answer.size; granted.push_back(static_cast<unsigned int>(value)))
          answer >> value;
    _exit(std::max(200, flood(me, granted[1], granted[0], 270)) - 200);
  });
  serve_until("mortal subscribed to");
  const int room = mortal.end(0);
  if (room == 0) GTEST_SKIP() << "the system gives the core no queue that is longer than a turn";
  EXPECT_EQ(200 + room, count_at_server());
  EXPECT_TRUE(seam::logged("is gone: its process ended"));
}

TEST_F(turns, take_the_management_of_a_process_before_its_end) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT);
    while (me.mgmt.receive().empty())
      usleep(1000);
    bool has_room = true;
    for (int sent = 0; sent < 40; ++sent)
      has_room = has_room && me.mgmt.send(fake_core::mgmt_path, me.make(CMD_UNSUB_FUNCTION, "", 0, MSG_SIG));
    me.manage(CMD_UNREG_COMPONENT, "", MSG_SIG);
    _exit(has_room ? 0 : 1);
  });
  serve_until("mortal (pid");
  if (mortal.end(0) != 0) GTEST_SKIP() << "the system gives the core no queue that is longer than a batch";
  serve_until(") is gone: ");
  EXPECT_TRUE(seam::logged("is gone: it unregistered"));
}

TEST_F(turns, notice_the_end_of_one_process_after_that_of_another) {
  const long descriptors = open_descriptors();
  for (const std::string name : {"first", "second"}) {
    const auto process = register_elsewhere(name);
    remove(name);
    const std::string its = name + " (pid " + std::to_string(process->pid());
    process->end(SIGKILL);
    serve_until(its + ") is gone: its process ended");
    EXPECT_EQ(descriptors, open_descriptors()) << "what it held is not given back at once";
  }
}

TEST_F(turns, wait_before_the_end_of_a_process_for_no_more_than_may_have_come_before) {
  const struct {
    const char* flooded;
    int least, most;
  } rows[] = {{fake_core::data_path, bound, bound},
              {fake_core::data_path, bound, bound},  // when there is nothing more to come before
              {fake_core::mgmt_path, 64, 1200}};
  for (const auto& row : rows) {
    const auto process = register_elsewhere("mortal");
    play("mortal goes; forget");
    process->end(SIGKILL);
    const int batches = batches_until([] { return seam::logged("is gone: its process ended"); }, row.flooded);
    EXPECT_LE(row.least, batches) << row.flooded;
    EXPECT_GE(row.most, batches) << row.flooded;
  }
}

TEST_F(turns, leave_a_component_to_the_children_of_its_process) {
  const auto first = register_elsewhere("shared");
  at("shared").mgmt.receive();
  play("shared uses get = the sender is not registered");
  first->end(SIGKILL);
  play("serve; shared uses get");
  at("shared").data.send(fake_core::data_path, std::vector<unsigned char>(1));
  play("shared vanishes; serve; other uses get; shared SIG get shared.get 5 > server = SIG 5");
}

TEST_F(turns, take_nothing_from_another_process_in_a_components_place) {
  raw_component& client = at("client");
  const auto request = make_message((*this)["get"], (*this)["client.get"], MSG_REQ, 5, 3);
  elsewhere([&] {
    client.data.send(fake_core::data_path, request), client.manage(CMD_UNREG_COMPONENT, "", MSG_SIG);
  });
  play(R"(serve; > client = ERR 3 (another process has registered with this socket)
          client REQ get client.get 4 > server = REQ 4)");
}

TEST_F(turns, do_not_end_by_the_word_of_others) {
  subject.m_running = true;
  ask(at("client"), CMD_KILL_COMPONENT, "", 0, MSG_SIG);
  elsewhere([this] { subject.sendKillMsgToSelf(); });
  play("serve; >> client");
  EXPECT_TRUE(subject.m_running);
  subject.sendKillMsgToSelf();
  play("serve; >> client = SIG " + std::to_string(own_message_id));
}

static const scenes<turns> of_turns("turns", R"(
answer at once in place of a component whose socket goes
  700 times client SIG get client.get 1; client REQ get client.get 5; server goes
  serve; > client = ERR 5 (the component is gone)

of data end with the ends that they found
  client REQ get client.get 5 > server = REQ 5; server goes
  client SIG get client.get 6 > client = ERR 5 (the component is gone)
)");

TEST_F(turns, survive_malformed_datagrams) {
  for (const std::string name : {"client", "stranger"}) {
    for (const raw_socket* const from : {&at(name).mgmt, &at(name).data})
      from->send(from == &at(name).mgmt ? fake_core::mgmt_path : fake_core::data_path,
                 std::vector<unsigned char>(13));
    play("serve");
  }
  play(R"(lines dropped a message of client (2 so far): it is malformed = 1
          lines dropped a message of [/tmp/kxcore/stranger] (1 so far): it is malformed = 1
          lines dropped a message of [/tmp/kxcore/stranger-d] (2 so far): it is malformed = 1)");
}

TEST_F(turns, survive_without_memory) {
  const KXmessage management = at("other").make(CMD_SUB_FUNCTION, "get", 0),
                  data = make_message(7, 99, MSG_REQ, 5, 3);
  at("stranger whose name takes memory");
  without_memory([&](int) {
    for (const char* const from : {"other", "stranger whose name takes memory"})
      at(from).mgmt.send(fake_core::mgmt_path, management), at(from).data.send(fake_core::data_path, data);
    EXPECT_NO_THROW(subject.serve());
    raw_component::arrived(at("other").mgmt), raw_component::arrived(at("other").data);
  });
  EXPECT_TRUE(seam::logged("no memory: a message is lost (2 so far)"));
  play("other uses get; client REQ get client.get 4 > server = REQ 4");
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

TEST_F(shutdowns, tell_three_at_a_time_one_for_each_that_went_and_all_after_three_seconds) {
  end.went(1);
  EXPECT_EQ(0, told());
  end.step();
  EXPECT_EQ(3, told());
  end.went(2);
  EXPECT_EQ(5, told());
  int steps = 2, before_last = 0;
  for (; end.step(); ++steps)
    before_last = told();
  EXPECT_EQ(3000, (steps - 1) * bus_shutdown::interval_ms);
  EXPECT_EQ(3 * (steps - 1) + 2, before_last);
  EXPECT_EQ(200, told());
}

TEST_F(shutdowns, pass_over_who_is_gone) {
  peers.for_each([this](peer& each) { each.name != "member 7" ? peers.give_up(each, "") : (void)0; });
  end.step();
  EXPECT_EQ(1, told());
}

namespace {

class ends : public whole_core {
 protected:
  void SetUp() override {
    sigset_t signals;
    sigfillset(&signals);
    sigprocmask(SIG_BLOCK, &signals, &m_before);  // the core reads them from its descriptor
    play(everybody);
    play("fourth registers");
    subject.m_running = true;
  }
  void TearDown() override {
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
    whole_core::TearDown();
  }
  // Whether it goes on after a signal; after the next interval.
  bool runs_after(int signal) { return kill(getpid(), signal), subject.serve(), subject.m_running; }
  bool runs_after_interval() {
    const timer_entry_t timer = subject.m_timers.front();
    return timer.handler(timer.context, timer.cookie), subject.m_running;
  }
  std::vector<std::string> told() {
    std::vector<std::string> names;
    for (const std::string name : {"server", "client", "other", "fourth"})
      if (raw_component::arrived(at(name).mgmt) == "SIG " + std::to_string(own_message_id))
        names.push_back(name);
    return names;
  }

 private:
  sigset_t m_before;
};

}  // namespace

TEST_F(ends, come_when_all_have_left_the_bus) {
  EXPECT_TRUE(runs_after(SIGTERM));
  EXPECT_EQ(bus_shutdown::interval_ms, subject.m_timers.front().to);
  play("late registers = the core is stopping");
  std::string at_once;
  for (auto next = told(); !next.empty(); next = told()) {
    at_once += std::to_string(next.size());
    for (const std::string& name : next) {
      EXPECT_TRUE(subject.m_running) << name;
      play(name + " leaves");
    }
  }
  EXPECT_EQ("31", at_once);
  EXPECT_FALSE(subject.m_running);
}

TEST_F(ends, come_after_three_seconds_when_some_do_not_leave) {
  EXPECT_TRUE(runs_after(SIGQUIT));
  int steps = 1;
  for (; runs_after_interval(); ++steps)
    ASSERT_LT(steps, 99);
  EXPECT_EQ(4u, told().size());
  EXPECT_EQ(3000, steps * bus_shutdown::interval_ms);
}

TEST_F(ends, come_at_once_at_the_second_signal) {
  EXPECT_TRUE(runs_after(SIGINT));
  EXPECT_FALSE(runs_after(SIGTERM));
}

TEST_F(ends, come_at_once_without_memory) {
  seam::fail(seam::NEW, ENOMEM, 99);
  EXPECT_FALSE(runs_after(SIGTERM));
  seam::fail(seam::NEW, 0, 0);
}

TEST_F(ends, come_at_once_when_nobody_is_there) {
  play("server leaves; client leaves; other leaves; fourth leaves");
  EXPECT_TRUE(subject.m_running);
  EXPECT_FALSE(runs_after(SIGTERM));
}

TEST_F(ends, come_when_it_turns_out_that_nobody_is_there) {
  play("server leaves; client leaves; other leaves; fourth goes");
  EXPECT_TRUE(runs_after(SIGTERM));
  EXPECT_FALSE(runs_after_interval());
}
