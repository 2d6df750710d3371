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
  static void elsewhere(const std::function<void()>& act) { child_process(act).end(0); }

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
      if (done()) batches = (seam::count(seam::RECVMMSG) - before - 1) / 16 * 16;
      for (int i = 0; i < 17; ++i)
        at("other").data.send(fake_core::data_path, make_message(1, 0, MSG_SIG, 1, 1));
    });
    subject.serve();
    seam::before(seam::RECVMMSG, nullptr);
    return batches;
  }
  static constexpr int bound = (socket_queue / 256 + 1) * 16;  // in whole turns

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
    play("client registers; client uses get; other uses get");
    raw_component& client = at("client");
    const auto send = [this](const std::string& name) {
      const auto proxy = unsigned(number(name + ".get"));
      return at(name).data.send(fake_core::data_path,
                                make_message(unsigned(number("get")), proxy, MSG_SIG, 5, 1));
    };
    int room = 0;
    while (room < sent && (send("client") || send("other")))
      ++room;
    seam::clear_lines();
    client.manage(CMD_UNREG_COMPONENT, "", 0, MSG_SIG);
    EXPECT_EQ(room, count_at_server()) << "of " << sent;
    EXPECT_TRUE(seam::logged("is gone: it unregistered")) << sent;
  }
}

TEST_F(turns, of_management_wait_for_no_more_data_than_a_full_queue) {
  for (const std::string name : {"stranger", "client"}) {
    at(name).manage(CMD_SUB_FUNCTION, "x", 0);
    EXPECT_EQ(name == "client" ? bound : 0, batches_until([&] { return !at(name).mgmt.receive().empty(); }));
  }
}

TEST_F(turns, keep_the_management_that_waits_when_more_comes) {
  at("client").manage(CMD_SUB_FUNCTION, "x", 0);
  int batches = 0;
  seam::before(seam::RECVMMSG, [&] {
    if (++batches == 40) at("server").manage(CMD_SUB_FUNCTION, "x", 0);
    for (int i = 0; i < 17 && batches < 100; ++i)
      at("other").data.send(fake_core::data_path, make_message(1, 0, MSG_SIG, 1, 1));
  });
  subject.serve();
  for (const std::string name : {"client", "server"})
    EXPECT_NE("", raw_component::arrived(at(name).mgmt)) << name;
}

TEST_F(turns, take_the_data_of_a_process_before_its_end) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT, "", 0);
    me.manage(CMD_SUB_FUNCTION, "get", 0);
    std::vector<int> granted;
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
  EXPECT_EQ(200 + room, count_at_server());
  EXPECT_TRUE(seam::logged("is gone: its process ended"));
}

TEST_F(turns, take_the_management_of_a_process_before_its_end) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT, "", 0);
    while (me.mgmt.receive().empty())
      usleep(1000);
    bool has_room = true;
    for (int sent = 0; sent < 40; ++sent)
      has_room = has_room && me.mgmt.send(fake_core::mgmt_path, me.make(CMD_UNSUB_FUNCTION, "", 0, MSG_SIG));
    me.manage(CMD_UNREG_COMPONENT, "", 0, MSG_SIG);
    _exit(has_room ? 0 : 1);
  });
  serve_until("mortal (pid");
  if (mortal.end(0) != 0) GTEST_SKIP() << "the system gives the core no queue that is longer than a batch";
  serve_until(") is gone: ");
  EXPECT_TRUE(seam::logged("is gone: it unregistered"));
}

TEST_F(turns, notice_the_end_of_one_process_after_that_of_another) {
  for (const std::string name : {"first", "second"}) {
    raw_component& mortal = at(name);
    child_process process([&mortal] { mortal.manage(CMD_REG_COMPONENT, "", 0), pause(); });
    serve_until(name + " (pid");
    remove(name);
    const std::string its = name + " (pid " + std::to_string(process.pid());
    process.end(SIGKILL);
    serve_until(its + ") is gone: its process ended");
  }
}

TEST_F(turns, wait_before_the_end_of_a_process_for_no_more_data_than_a_full_queue) {
  child_process mortal([] {
    raw_component me("mortal");
    me.manage(CMD_REG_COMPONENT, "", 0);
    pause();
  });
  serve_until("mortal (pid");
  mortal.end(SIGKILL);
  EXPECT_EQ(bound, batches_until([] { return seam::logged("is gone: its process ended"); }));
}

TEST_F(turns, wait_before_the_end_of_a_process_for_no_more_management_than_it_may_have_sent) {
  raw_component& mortal = at("mortal");
  child_process process([&mortal] { mortal.manage(CMD_REG_COMPONENT, "", 0), pause(); });
  serve_until("mortal (pid");
  remove("mortal");
  process.end(SIGKILL);
  const raw_socket& stranger = at("stranger").mgmt;
  constexpr int enough = 20'000;
  int sent = 0;
  bool is_gone = false;
  seam::before(seam::RECVMMSG, [&] {
    is_gone = is_gone || seam::logged("is gone: its process ended");
    for (int i = 0; i < 17 && sent < enough && !is_gone; ++i)
      sent += stranger.send(fake_core::mgmt_path, std::vector<unsigned char>(1)) ? 1 : 0;
  });
  subject.serve();
  EXPECT_LT(sent, enough);
}

TEST_F(turns, leave_a_component_to_the_children_of_its_process) {
  raw_component& shared = at("shared");
  child_process first([&] { shared.manage(CMD_REG_COMPONENT, "", 0), pause(); });
  serve_until("shared (pid");
  shared.mgmt.receive();
  play("shared uses get = the sender is not registered");
  first.end(SIGKILL);
  subject.serve();
  play("shared uses get");
  shared.data.send(fake_core::data_path, std::vector<unsigned char>(1));
  unlink(shared.mgmt.path().c_str());
  subject.serve();
  play("other uses get");
}

TEST_F(turns, answer_at_once_in_place_of_a_component_whose_socket_goes) {
  for (int sent = 0; sent < 700; ++sent)  // more than its socket holds
    play("client SIG get client.get 1");
  play("client REQ get client.get 5");
  remove("server");
  subject.serve();
  play("client > client = ERR 5 (the component is gone)");
}

TEST_F(turns, of_data_end_with_the_ends_that_they_found) {
  play("client REQ get client.get 5 > server = REQ 5");
  remove("server");
  play("client SIG get client.get 6 > client = ERR 5 (the component is gone)");
}

TEST_F(turns, take_nothing_from_another_process_in_a_components_place) {
  raw_component& client = at("client");
  const auto request = make_message(unsigned(number("get")), unsigned(number("client.get")), MSG_REQ, 5, 3);
  elsewhere([&] {
    client.data.send(fake_core::data_path, request), client.manage(CMD_UNREG_COMPONENT, "", 0, MSG_SIG);
  });
  subject.serve();
  play(
      "client > client = ERR 3 (another process has registered with this socket); "
      "client REQ get client.get 4 > server = REQ 4");
}

TEST_F(turns, do_not_end_by_the_word_of_others) {
  subject.m_running = true;
  ask(at("client"), CMD_KILL_COMPONENT, "", 0, MSG_SIG);
  EXPECT_EQ(MSG_NONE, reply.m_header->msg_type) << "it tells the components to end";
  elsewhere([this] { subject.sendKillMsgToSelf(); });
  subject.serve();
  EXPECT_TRUE(subject.m_running);
  EXPECT_EQ("", raw_component::arrived(at("client").mgmt));
}

TEST_F(turns, survive_malformed_datagrams) {
  for (const std::string name : {"client", "stranger"}) {
    at(name).mgmt.send(fake_core::mgmt_path, std::vector<unsigned char>(2049));
    subject.serve();
    at(name).data.send(fake_core::data_path, std::vector<unsigned char>(13));
    subject.serve();
  }
  for (const std::string name :
       {"client (1", "client (2", "[/tmp/kxcore/stranger] (1", "[/tmp/kxcore/stranger-d] (2"})
    EXPECT_TRUE(seam::logged("dropped a message of " + name + " so far): it is malformed")) << name;
}

TEST_F(turns, survive_without_memory) {
  raw_component &other = at("other"), &client = at("client"),
                &stranger = at("stranger whose name takes memory");
  const KXmessage management = other.make(CMD_SUB_FUNCTION, "get", 0),
                  data = make_message(7, 99, MSG_REQ, 5, 3);
  for (int fails_at = 1; fails_at < 60; ++fails_at) {
    for (const raw_socket* const from : {&other.mgmt, &stranger.mgmt})
      from->send(fake_core::mgmt_path, management);
    for (const raw_socket* const from : {&client.data, &stranger.data})
      from->send(fake_core::data_path, data);
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    subject.serve();
    seam::fail(seam::NEW, 0, 0);
    raw_component::arrived(other.mgmt), client.arrived();
  }
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

TEST_F(shutdowns, tell_three_at_a_time_and_one_for_each_that_went) {
  end.went(1);
  EXPECT_EQ(0, told());
  for (const int expected : {3, 6}) {
    EXPECT_TRUE(end.step());
    EXPECT_EQ(expected, told());
  }
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
  void SetUp() override {
    sigset_t signals;
    sigfillset(&signals);
    sigprocmask(SIG_BLOCK, &signals, &m_before);  // the core reads them from its descriptor
    turns::SetUp();
    play("fourth registers");
    subject.m_running = true;
  }
  void TearDown() override {
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
    turns::TearDown();
  }
  void take(int signal) { kill(getpid(), signal), subject.serve(); }
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
  take(SIGTERM);
  EXPECT_EQ(bus_shutdown::interval_ms, subject.m_timers.front().to);
  play("late registers = the core is stopping");
  std::string at_once;
  for (auto next = told(); !next.empty(); next = told()) {
    at_once += std::to_string(next.size());
    for (const std::string& name : next) {
      EXPECT_TRUE(subject.m_running) << name;
      ask(at(name), CMD_UNREG_COMPONENT, "", 0, MSG_SIG);
    }
  }
  EXPECT_EQ("31", at_once);
  EXPECT_FALSE(subject.m_running);
}

TEST_F(ends, come_after_three_seconds_when_some_do_not_leave) {
  take(SIGQUIT);
  const timer_entry_t timer = subject.m_timers.front();
  int steps = 1;
  for (; timer.handler(timer.context, timer.cookie) == 0; ++steps)
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
  play("server leaves; client leaves; other leaves; fourth leaves");
  EXPECT_TRUE(subject.m_running);
  take(SIGTERM);
  EXPECT_FALSE(subject.m_running);
}
