// How kxctl takes part in the bus when there is no core, or one that does not do as it should.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kxctl_run.h"
#include "socket_address.h"
#include "values.h"

namespace {

using fill = std::function<void(KXmessage&)>;

constexpr char mgmt_path[] = "/tmp/kxcore/kxcore";
constexpr char data_path[] = "/tmp/kxcore/kxcore-d";

void bind_and(const std::string& path, const std::function<void(int)>& then) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  const sockaddr_un address = socket_address(path);
  EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << path;
  then(fd);
}

std::string own_path() { return "/tmp/kxcore/kxctl-" + std::to_string(getpid()); }

void leave_dead(const std::string& path) {
  bind_and(path, [](int fd) { close(fd); });
}

// A core that grants everything, and answers requests as it is told.
class easy_core {
 public:
  // Serves until the program ends; what that ends with. What it is told is in `told`.
  std::string serve(run& program) {
    for (KXmessage message; waits_for(program);) {
      if (mgmt.receive(message)) manage(message);
      if (data.receive(message)) reply(data, message, answer);
    }
    for (KXmessage message; mgmt.receive(message);)
      manage(message);
    return ended_with(program);
  }

  std::string serve(const std::string& line) {
    run program("kxctl " + line);
    return serve(program);
  }

  fill registered = [](KXmessage& message) { message << std::string(data_path); };
  fill granted = [](KXmessage& message) {
    for (const int number : {21, 7, 0x1000, 0x2000})
      message << number;
  };
  fill offered = [](KXmessage& message) { message << 9; };
  fill answer = [](KXmessage&) {};
  mgmt_cmd_e refused = CMD_NONE;  // with the reason "no"
  mgmt_cmd_e killing = CMD_NONE;  // is answered with KILL-COMPONENT
  std::string told;               // the commands, and the siids of what is given back
  raw_socket mgmt{mgmt_path};
  raw_socket data{data_path};

 private:
  static bool waits_for(run& program) { return usleep(1000) == 0 && !program.has_ended(); }

  void manage(const KXmessage& message) {
    const auto cmd = static_cast<mgmt_cmd_e>(message.m_header->cmd);
    told += (told.empty() ? "" : " ") + std::to_string(cmd);
    if (cmd == killing)
      mgmt.send(mgmt.sender(), make_management(MSG_SIG, CMD_KILL_COMPONENT, own_message_id));
    if (message.m_header->msg_type != MSG_REQ) {
      if (cmd != CMD_UNREG_COMPONENT) told += "(" + decode(message).text() + ")";
    } else if (cmd == refused) {
      reply(
          mgmt, message, [](KXmessage& why) { why << "no"; }, MSG_ERR);
    } else {
      reply(mgmt, message,
            cmd == CMD_REG_COMPONENT      ? registered
            : facts_of(cmd).kind == OFFER ? offered
                                          : granted);
    }
  }

  static void reply(const raw_socket& from, const KXmessage& to, const fill& values,
                    msg_type_e type = MSG_RSP) {
    const msg_header_t& asked = *to.m_header;
    KXmessage message =
        make_message(ntohl(asked.src_siid), ntohl(asked.dst_siid), type, asked.cmd, ntohl(asked.msg_id));
    values(message);
    from.send(from.sender(), message);
  }
};

class no_core : public testing::Test {
 protected:
  void TearDown() override {
    unlink(mgmt_path);
    EXPECT_EQ("", files());
  }
};

class alone : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ("kxcore kxcore-d", files()); }

  easy_core core;
};

using among = bus_with_core;

constexpr char misunderstood[] = ": it and kxctl are not of one version";

}  // namespace

TEST_F(no_core, is_told) {
  EXPECT_EQ("3: ! kxctl: no kxcore runs here, there is no /tmp/kxcore/kxcore: start it", kxctl("list"));
}

TEST_F(no_core, is_told_when_one_has_left_its_socket) {
  leave_dead(mgmt_path);
  EXPECT_EQ("3: ! kxctl: no kxcore runs here, one has left /tmp/kxcore/kxcore and ended: start it",
            kxctl("call get"));
}

TEST_F(alone, a_stranger_is_not_permitted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(mgmt_path, 0600);
  run list("kxctl list", [] { EXPECT_EQ(0, setuid(65534)); });
  EXPECT_EQ("3: ! kxctl: not permitted to send to /tmp/kxcore/kxcore: run kxctl as its owner or group",
            ended_with(list));
}

TEST_F(alone, a_stranger_may_not_make_its_socket) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  chmod(mgmt_path, 0666);
  chmod("/tmp/kxcore", 0755);
  run list("kxctl list", [] { EXPECT_EQ(0, setuid(65534)); });
  const std::string problem =
      "3: ! kxctl: cannot make its socket /tmp/kxcore/" + list.name() + ": Permission denied. ";
  EXPECT_EQ(problem + "Take part as a user who may write to the directory", ended_with(list));
  chmod("/tmp/kxcore", 0777);
}

TEST_F(alone, a_core_that_does_not_answer_is_not_waited_for) {
  EXPECT_EQ("3: ! kxctl: kxcore does not answer in time: it is stopped, or has much to do",
            kxctl("--timeout 0.05 list"));
}

TEST_F(alone, a_core_that_does_not_read_is_not_waited_for) {
  const raw_socket other("/tmp/kxcore/other");
  while (other.send(mgmt_path, "x", 1)) {
  }
  EXPECT_EQ("3: ! kxctl: kxcore does not read in time, its queue is full: it is stopped, or has much to do",
            kxctl("--timeout 0.05 list"));
}

TEST_F(alone, a_full_queue_is_tried_again) {
  const raw_socket other("/tmp/kxcore/other");
  while (other.send(mgmt_path, "x", 1)) {
  }
  EXPECT_EQ("0: ", core.serve("call get"));
}

TEST_F(alone, a_wait_for_the_core_can_be_interrupted) {
  run list("kxctl list");
  KXmessage registration;
  EXPECT_TRUE(comes_true([&] { return core.mgmt.receive(registration); }));
  EXPECT_EQ("130: ", ended_with(list, SIGINT));
}

TEST_F(alone, what_was_granted_is_given_back) {
  const struct {
    const char *line, *told;
  } rows[] = {
      {"call get", "1 7 9(21) 2"},
      {"--timeout 0.05 listen tick tock", "1 8 8 10(21) 10(21) 2"},
      {"emit tick", "1 4 6(9) 2"},
      {"--timeout 0.05 serve get true", "1 3 5(9) 2"},
      {"call get:read", "1 7 7 7 9(21) 9(21) 9(21) 2"},
  };
  core.answer = [](KXmessage& message) { message << "none", message << "none"; };
  for (const auto& row : rows) {
    core.told.clear();
    core.serve(row.line);
    EXPECT_EQ(row.told, core.told) << row.line;
  }
}

TEST_F(alone, what_the_core_refuses_is_told) {
  core.refused = CMD_REG_COMPONENT;
  EXPECT_EQ("3: ! kxctl: no", core.serve("call get"));
  core.refused = CMD_SUB_FUNCTION;
  EXPECT_EQ("1: ! kxctl: no", core.serve("call get"));
  core.refused = CMD_REG_SIGNAL;
  EXPECT_EQ("1: ! kxctl: no", core.serve("emit tick"));
}

TEST_F(alone, a_core_that_tells_nothing_is_told_from_others) {
  core.refused = CMD_SUB_FUNCTION;
  for (const char* const line :
       {"list", "tree", "status x", "introspect x", "stats", "top", "--json list", "call x:read"})
    EXPECT_EQ(line == std::string("call x:read") ? "1: ! kxctl: no"
                                                 : "4: ! kxctl: this kxcore does not tell about the bus: no",
              core.serve(line))
        << line;
}

TEST_F(alone, a_wait_goes_without_events) {
  core.refused = CMD_SUB_SIGNAL;
  EXPECT_EQ("0: ", core.serve("wait get"));
  EXPECT_EQ("1 8 7 9(21) 2", core.told);
  EXPECT_EQ("124: ! kxctl: 'get' is still offered", core.serve("--timeout 0.1 wait --gone get"));
  EXPECT_EQ("0: ", core.serve("wait --component kxcore"));
  EXPECT_EQ("124: ! kxctl: 'nix' is not there in time", core.serve("--timeout 0.1 wait --component nix"));
}

TEST_F(alone, answers_of_another_form_are_refused) {
  const auto strange = [](KXmessage& message) { message << true; };
  core.offered = strange;
  EXPECT_EQ(std::string("3: ! kxctl: kxcore answers with 'b' in place of 'i'") + misunderstood,
            core.serve("emit tick"));
  core.granted = strange;
  EXPECT_EQ(std::string("3: ! kxctl: kxcore answers with 'b' in place of 'iiii'") + misunderstood,
            core.serve("call get"));
  core.registered = strange;
  EXPECT_EQ(std::string("3: ! kxctl: kxcore answers with 'b' in place of 's'") + misunderstood,
            core.serve("call get"));
}

TEST_F(alone, tables_of_another_form_are_refused) {
  const struct {
    fill page;
    const char* form;
  } rows[] = {
      {[](KXmessage&) {}, ""},
      {[](KXmessage& page) { page << 1U; }, "u"},
      {[](KXmessage& page) { page << 1U, page << true; }, "a page without rows"},
      {[](KXmessage& page) { page << 1U, page << false, page << "x"; }, "ubs"},
      {[](KXmessage& page) { page << 1U, page << false, page.incr_size(1); }, "ub?"},
  };
  for (const auto& row : rows) {
    core.answer = row.page;
    EXPECT_EQ(
        std::string("4: ! kxctl: kxcore tells about the bus in another form, ") + row.form + misunderstood,
        core.serve("list services"));
  }
}

TEST_F(alone, a_description_of_another_form_is_refused) {
  core.answer = [](KXmessage& message) { message << 5; };
  EXPECT_EQ(std::string("4: ! kxctl: kxcore tells about the bus in another form, i") + misunderstood,
            core.serve("introspect x"));
}

TEST_F(alone, kxctl_ends_when_it_is_told_to) {
  for (const mgmt_cmd_e cmd : {CMD_REG_COMPONENT, CMD_SUB_SIGNAL}) {
    core.killing = cmd;
    EXPECT_EQ("3: ! kxctl: kxcore tells its components to end: it stops", core.serve("listen tick"));
  }
}

TEST_F(alone, what_is_no_message_is_passed_over) {
  core.registered = [this](KXmessage& message) {
    const KXmessage kill = make_management(MSG_SIG, CMD_KILL_COMPONENT, own_message_id);
    core.mgmt.send(core.mgmt.sender(), kill.m_header, 13);
    message << std::string(data_path);
  };
  EXPECT_EQ("0: ", core.serve("call get"));
}

TEST_F(alone, a_dead_socket_of_its_name_is_replaced) {
  run call("kxctl call get", [] { leave_dead(own_path()), leave_dead(own_path() + "-d"); });
  EXPECT_EQ("0: ", core.serve(call));
}

TEST_F(alone, a_socket_of_its_name_that_lives_is_left_alone) {
  run call("kxctl call get", [] { bind_and(own_path(), [](int) {}); });
  const std::string path = "/tmp/kxcore/" + call.name();
  EXPECT_EQ("3: ! kxctl: cannot make its socket " + path + ": Address already in use", core.serve(call));
  EXPECT_EQ(0, unlink(path.c_str()));
}

TEST_F(among, the_end_of_the_core_is_noticed_at_once) {
  stand_in server("server");
  watcher bus;
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  run listen("kxctl listen tick");
  bus.await(5, listen.name());
  end_core(SIGKILL);
  EXPECT_EQ("3: ! kxctl: kxcore has ended meanwhile: start it again", ended_with(listen));
}

TEST_F(among, the_core_ends_in_order) {
  watcher bus;
  run wait("kxctl wait get");
  bus.await(5, wait.name());
  kill(core->pid(), SIGTERM);
  EXPECT_EQ("3: ! kxctl: kxcore tells its components to end: it stops", ended_with(wait));
}
