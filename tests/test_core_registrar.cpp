// Management: who may register, offer, use and withdraw what, and how a refusal reads.
#include <sys/stat.h>

#include <thread>

#include <optional>

#include "core_probe.h"

namespace {

constexpr mgmt_cmd_e commands[] = {CMD_REG_COMPONENT,  CMD_UNREG_COMPONENT, CMD_REG_FUNCTION, CMD_REG_SIGNAL,
                                   CMD_UNREG_FUNCTION, CMD_UNREG_SIGNAL,    CMD_SUB_FUNCTION, CMD_SUB_SIGNAL,
                                   CMD_UNSUB_FUNCTION, CMD_UNSUB_SIGNAL};

class registrations : public rooms {
 protected:
  // Registers this name and data path from that socket.
  std::string registers(raw_component& from, const std::string& name, const std::string& data) {
    KXmessage message = make_message(1, 1, MSG_REQ, CMD_REG_COMPONENT, 1);
    message << name, message << data;
    return tell(from, message);
  }
};

}  // namespace

TEST_F(rooms, grant_what_is_asked_for_with_the_numbers_of_the_request) {
  const struct {
    mgmt_cmd_e cmd;
    const char* service;
    std::size_t numbers;
  } rows[] = {{CMD_REG_FUNCTION, "new", 1}, {CMD_SUB_FUNCTION, "get", 4}, {CMD_SUB_SIGNAL, "tick", 4}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.numbers, grant(other, row.cmd, row.service).size()) << row.cmd;
    reply.size = 0;
    EXPECT_EQ(hex(bytes_of(make_message(1, 1, MSG_RSP, row.cmd, other.last_id))), hex(bytes_of(reply)));
  }
  const ints granted = grant(other, CMD_SUB_FUNCTION, "get");
  EXPECT_EQ(get, granted.at(1));
  EXPECT_EQ(granted.at(2) + 4096, granted.at(3));
  std::string data_path;
  ask(other, CMD_REG_COMPONENT);
  reply >> data_path;
  EXPECT_EQ(fake_core::data_path, data_path);
}

TEST_F(rooms, refuse_a_payload_that_does_not_parse) {
  const struct {
    mgmt_cmd_e cmd;
    int values;  // that its payload has
  } rows[] = {{CMD_REG_COMPONENT, 2},  {CMD_UNREG_COMPONENT, 1}, {CMD_REG_FUNCTION, 5}, {CMD_REG_SIGNAL, 5},
              {CMD_UNREG_FUNCTION, 1}, {CMD_UNREG_SIGNAL, 1},    {CMD_SUB_FUNCTION, 1}, {CMD_SUB_SIGNAL, 1},
              {CMD_UNSUB_FUNCTION, 1}, {CMD_UNSUB_SIGNAL, 1}};
  for (const auto& row : rows) {
    for (int values = 0; values < row.values; ++values) {
      KXmessage message = make_message(1, 1, MSG_REQ, row.cmd, 5);
      for (int i = 0; i < values; ++i)
        message << "other";
      EXPECT_EQ("the payload does not parse", tell(other, message)) << row.cmd << " " << values;
      EXPECT_EQ(MSG_ERR, reply.m_header->msg_type);
      EXPECT_EQ(5u, ntohl(reply.m_header->msg_id));
    }
  }
  for (const mgmt_cmd_e cmd : {CMD_REG_FUNCTION, CMD_REG_SIGNAL})
    for (const int type : {-1, 0, 1, 2, 3})
      EXPECT_EQ(
          type < 0 || type > 2 || (type == 2) != (cmd == CMD_REG_SIGNAL),
          ask(other, cmd, std::to_string(cmd) + std::to_string(type), type) == "the payload does not parse")
          << cmd << " " << type;
}

TEST_F(rooms, refuse_who_is_not_registered_and_what_is_no_request) {
  raw_component stranger("stranger");
  for (const mgmt_cmd_e cmd : commands) {
    const bool awaits = awaits_reply(cmd);
    EXPECT_EQ(cmd == CMD_REG_COMPONENT ? "" : "the sender is not registered", ask(stranger, cmd, "get"))
        << cmd;
    notify(stranger, CMD_UNREG_COMPONENT);
    ask(other, CMD_REG_COMPONENT);
    seam::clear_lines();
    notify(other, cmd);
    EXPECT_EQ(MSG_NONE, reply.m_header->msg_type) << cmd << " answers a notice";
    EXPECT_EQ(awaits, seam::logged("it is not a request")) << cmd;
  }
  for (const int cmd : {0, 11, 12, 255})
    EXPECT_EQ("the core does not serve this command", ask(server, static_cast<mgmt_cmd_e>(cmd), "get"))
        << cmd;
  for (const msg_type_e type : {MSG_NONE, MSG_RSP, MSG_ERR, msg_type_e{5}}) {
    seam::clear_lines();
    ask(server, CMD_SUB_FUNCTION, "get", 0, type);
    EXPECT_EQ(MSG_NONE, reply.m_header->msg_type) << type;
    EXPECT_TRUE(seam::logged("it is neither a request nor a notice")) << type;
  }
}

TEST_F(rooms, refuse_a_process_that_uses_the_socket_of_another) {
  const struct {
    pid_t pid;
    uid_t uid;
    const char* reason;
  } rows[] = {{client.pid + 1, client.uid, "the sender is not registered"},
              {0, client.uid, "the sender is not registered"},
              {client.pid, client.uid + 1, ""},  // and is not even answered
              {client.pid, client.uid, "nobody offers 'x'"}};
  for (const auto& row : rows) {
    client.pid = row.pid, client.uid = row.uid;
    EXPECT_EQ(row.reason, ask(client, CMD_SUB_FUNCTION, "x")) << row.pid;
  }
  client.pid += 1;
  notify(client, CMD_UNREG_COMPONENT);
  EXPECT_NE(nullptr, peers.at_mgmt(client.mgmt.path())) << "it is unregistered by another process";
}

TEST_F(rooms, name_the_service_in_a_refusal) {
  const std::string too_long(256, 'x'),
      unsuitable = "the name is empty, longer than 255 bytes or has control characters";
  const struct {
    raw_component& by;
    mgmt_cmd_e cmd;
    std::string service;
    int number;
    std::string reason;
  } rows[] = {{other, CMD_REG_FUNCTION, "get", 1, "'get' is offered by server"},
              {server, CMD_REG_SIGNAL, "get", 2, "'get' is offered by server"},
              {other, CMD_REG_FUNCTION, "kxcore.x", 0, "'kxcore.x' is a name of the core's"},
              {other, CMD_REG_FUNCTION, "kxcorex", 0, ""},
              {other, CMD_REG_FUNCTION, "", 0, unsuitable},
              {other, CMD_REG_FUNCTION, too_long, 0, unsuitable},
              {other, CMD_REG_FUNCTION, too_long.substr(1), 0, ""},
              {other, CMD_REG_FUNCTION, "a\n", 0, unsuitable},
              {other, CMD_REG_FUNCTION, "a\x7F", 0, unsuitable},
              {other, CMD_REG_FUNCTION, "\xC3\xA4 b", 0, ""},
              {other, CMD_SUB_FUNCTION, "absent", 0, "nobody offers 'absent'"},
              {other, CMD_SUB_FUNCTION, "tick", 0, "'tick' is a signal"},
              {other, CMD_SUB_SIGNAL, "get", 0, "'get' is a function"},
              {other, CMD_SUB_FUNCTION, "\t", 0, unsuitable},
              {other, CMD_UNREG_FUNCTION, "", get, "the siid is not the sender's"},
              {other, CMD_UNREG_SIGNAL, "", tick, "the siid is not the sender's"},
              {server, CMD_UNREG_SIGNAL, "", get, "the siid is not the sender's"},
              {other, CMD_UNSUB_FUNCTION, "", proxy, "the siid is not the sender's"},
              {client, CMD_UNSUB_SIGNAL, "", proxy, "the siid is not the sender's"},
              {client, CMD_UNSUB_FUNCTION, "", proxy, ""},
              {server, CMD_UNREG_FUNCTION, "", get, ""},
              {other, CMD_SUB_FUNCTION, "get", 0, "nobody offers 'get'"}};
  for (const auto& row : rows)
    EXPECT_EQ(row.reason, ask(row.by, row.cmd, row.service, row.number)) << row.cmd << " " << row.service;
}

TEST_F(rooms, count_and_thin_out_the_refusals_of_each_component_and_of_strangers) {
  raw_component stranger("stranger");
  for (int i = 0; i < 17; ++i)
    ask(client, CMD_SUB_FUNCTION, "x"), ask(stranger, CMD_SUB_FUNCTION, "x");
  for (const char* const who : {"client", "[/tmp/kxcore/stranger]"})
    EXPECT_EQ(9, seam::times_logged("refused SUB-FUNCTION of " + std::string(who) + " (")) << who;
  EXPECT_TRUE(seam::logged("refused SUB-FUNCTION of client (16 so far): nobody offers 'x'"));
  pass(client, 999, proxy, MSG_SIG, 1, client);
  EXPECT_TRUE(seam::logged("dropped a message of client (1 so far)")) << "counted with the refusals";
}

TEST_F(rooms, let_a_component_hold_1024_services_and_subscriptions) {
  const std::string limit = ": it holds 1024 services and subscriptions, which is the limit";
  for (int i = 0; i < 1022; ++i)
    ASSERT_EQ("", ask(other, CMD_SUB_SIGNAL, "tick"));
  offer(other, "own");
  const int last = grant(other, CMD_SUB_FUNCTION, "get").at(0);
  EXPECT_EQ("no 'more'" + limit, ask(other, CMD_REG_FUNCTION, "more"));
  EXPECT_EQ("no 'tick'" + limit, ask(other, CMD_SUB_SIGNAL, "tick"));
  notify(other, CMD_UNSUB_FUNCTION, last);
  EXPECT_EQ("", ask(other, CMD_REG_FUNCTION, "more"));
}

TEST_F(rooms, say_when_no_message_ids_are_left) {
  peer greedy{"greedy", {"", 0, 0}, ""};
  const auto signal = peers.services().find_offered("tick");
  while (peers.services().has_message_ids())
    peers.services().subscribe(greedy, signal);
  EXPECT_EQ("all message ids are in use, none are left for 'get'", ask(other, CMD_SUB_FUNCTION, "get"));
  peers.services().forget(greedy);
  EXPECT_EQ("", ask(other, CMD_SUB_FUNCTION, "get"));
}

TEST_F(rooms, answer_a_request_for_which_there_is_no_memory) {
  for (const mgmt_cmd_e cmd : {CMD_SUB_FUNCTION, CMD_REG_COMPONENT}) {
    const KXmessage message = other.make(cmd, "get", 0);
    bool is_refused = false;
    for (int fails_at = 1; fails_at < 40; ++fails_at) {
      seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
      try {
        serve_mgmt(other, message);
      } catch (const std::bad_alloc&) {  // before or after the handler: the core's turn counts it
      }
      seam::fail(seam::NEW, 0, 0);
      is_refused |= other.arrived(other.mgmt).find("(no memory)") != std::string::npos;
    }
    EXPECT_TRUE(is_refused) << cmd;
    EXPECT_EQ("", tell(other, message)) << cmd;
  }
}

TEST_F(registrations, are_of_a_name_and_sockets_that_belong_together) {
  mkdir("/tmp/kxcore/sub", 0777);
  raw_component good("good"), below("sub/good"), odd("od\nd"), off("../kxcore-off-bus");
  const std::string control = "the name is empty, longer than 255 bytes or has control characters",
                    not_its_name = "the name is not that of its management socket",
                    not_beside = "the data socket is not the one beside its management socket";
  const struct {
    raw_component& from;
    std::string name, data, reason;
  } rows[] = {{good, "good", good.data.path(), ""},
              {good, "good", good.data.path(), ""},
              {good, "ood", good.data.path(), not_its_name},
              {good, "agood", good.data.path(), not_its_name},
              {good, "", good.data.path(), control},
              {good, "good", below.data.path(), not_beside},
              {good, "good", good.mgmt.path(), not_beside},
              {good, "good", "", not_beside},
              {odd, "od\nd", odd.data.path(), control},
              {odd, "d", odd.data.path(), "its management socket is not on the bus"},
              {off, "kxcore-off-bus", off.data.path(), ""},  // it gets no answer
              {below, "good", below.data.path(), ""},
              {below, "sub/good", below.data.path(), ""}};
  for (const auto& row : rows)
    EXPECT_EQ(row.reason, registers(row.from, row.name, row.data)) << row.name << " " << row.data;
  EXPECT_EQ(nullptr, peers.at_mgmt(off.mgmt.path()));
  EXPECT_NE(nullptr, peers.at_mgmt(good.mgmt.path())) << "the same name in another directory evicts it";
}

TEST_F(registrations, are_never_of_the_cores_own_sockets) {
  raw_component core("kxcore"), beside("kxcore-d");
  EXPECT_EQ("these are the core's own sockets", registers(core, "kxcore", core.data.path()));
  EXPECT_EQ("these are the core's own sockets", registers(beside, "kxcore-d", beside.data.path()));
}

TEST_F(registrations, need_sockets_that_can_be_reached) {
  raw_component half("half");
  unlink(half.data.path().c_str());
  EXPECT_EQ("its sockets cannot be reached: No such file or directory", ask(half, CMD_REG_COMPONENT));
  const long before = open_descriptors();
  raw_component more("more");
  seam::fail(seam::SOCKET, EMFILE);
  EXPECT_EQ("", ask(more, CMD_REG_COMPONENT)) << "there is a descriptor when it tries again";
  seam::fail(seam::SOCKET, ENFILE, 9);
  EXPECT_EQ("its sockets cannot be reached: Too many open files in system", ask(half, CMD_REG_COMPONENT));
  seam::fail(seam::SOCKET, 0, 0);
  EXPECT_EQ(before + 6, open_descriptors()) << "two sockets of the test and four of the component";
}

TEST_F(registrations, that_need_descriptors_take_those_of_the_dead) {
  {
    raw_component mortal("mortal");
    ask(mortal, CMD_REG_COMPONENT);
    for (const int faults : {1, 2}) {
      seam::fail(seam::SOCKET, EMFILE, faults);
      ask(other, CMD_REG_COMPONENT);
    }
    EXPECT_NE(nullptr, peers.at_mgmt(mortal.mgmt.path())) << "it lives";
  }
  seam::fail(seam::SOCKET, EMFILE);
  EXPECT_EQ("", ask(other, CMD_REG_COMPONENT));
  EXPECT_EQ(nullptr, peers.at_mgmt("/tmp/kxcore/mortal"));
  EXPECT_NE(nullptr, peers.at_mgmt(server.mgmt.path()));
}

TEST_F(registrations, replace_the_one_before_and_warn_when_that_lives) {
  child_process living([] { pause(); });
  const std::string of_dead = "of twice (pid " + std::to_string(living.pid());
  std::optional<raw_component> beside, twice("twice");
  const auto registers_as = [&](raw_component& who, pid_t pid, const char* warning) {
    seam::clear_lines();
    who.pid = pid;
    EXPECT_EQ("", ask(who, CMD_REG_COMPONENT)) << pid;
    EXPECT_EQ(*warning != '\0', seam::logged(" has removed a socket of ")) << who.name << pid;
    EXPECT_TRUE(seam::logged(warning)) << who.name << pid;
  };
  registers_as(*twice, living.pid(), "");
  registers_as(*twice, living.pid(), "");
  registers_as(*twice, getpid(), of_dead.c_str());
  beside.emplace("twice-d");
  registers_as(*beside, living.pid(), "their names may not differ by -d alone");
  EXPECT_EQ("the sockets at its paths are not its own", ask(*twice, CMD_REG_COMPONENT))
      << "one is the other's";
  twice.emplace("twice");
  registers_as(*twice, getppid(), "their names may not differ by -d alone");
  registers_as(*twice, living.pid(), "of twice (pid ");
  living.end(SIGKILL);
  registers_as(*twice, getpid(), "");
}

TEST_F(registrations, of_a_living_process_of_another_user_keep_the_name) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  child_process living([] { pause(); });
  raw_component name("name");
  const auto becomes = [&name](uid_t user, pid_t process) {
    for (const raw_socket* const each : {&name.mgmt, &name.data})
      EXPECT_EQ(0, chown(each->path().c_str(), user, 0));
    name.uid = user, name.pid = process;
  };
  becomes(1234, living.pid());
  EXPECT_EQ("", ask(name, CMD_REG_COMPONENT));
  becomes(1235, getpid());
  EXPECT_EQ("a process of another user has the name, and lives", ask(name, CMD_REG_COMPONENT));
  living.end(SIGKILL);
  EXPECT_EQ("", ask(name, CMD_REG_COMPONENT));
}

TEST_F(registrations, need_sockets_of_the_users_own_that_no_other_component_has) {
  const std::string not_its_own = "the sockets at its paths are not its own";
  raw_component foreign("foreign"), late("late");
  foreign.uid += 1;
  ask(foreign, CMD_REG_COMPONENT);
  EXPECT_EQ(nullptr, peers.at_mgmt(foreign.mgmt.path()));
  late.uid = sender::overflow_uid, late.pid = 0;
  EXPECT_EQ("", ask(late, CMD_REG_COMPONENT)) << "the system did not tell yet whose it is";
  late.uid = geteuid(), late.pid = getpid();
  EXPECT_EQ("", ask(late, CMD_SUB_FUNCTION, "get")) << "it is the owner of the file";
  for (const raw_socket* const stolen : {&server.mgmt, &server.data}) {
    raw_component thief("thief");
    unlink(thief.data.path().c_str());
    EXPECT_EQ(0, link(stolen->path().c_str(), thief.data.path().c_str()));
    EXPECT_EQ(not_its_own, ask(thief, CMD_REG_COMPONENT)) << stolen->path();
    unlink(thief.data.path().c_str());
    EXPECT_EQ(0, symlink(stolen->path().c_str(), thief.data.path().c_str()));
    EXPECT_EQ("its sockets cannot be reached: Socket operation on non-socket", ask(thief, CMD_REG_COMPONENT));
  }
}

TEST_F(registrations, end_with_all_that_was_granted) {
  const std::size_t size = peers.size();
  const long descriptors = open_descriptors();
  for (int i = 0; i < 3; ++i) {
    raw_component mortal("mortal");
    ask(mortal, CMD_REG_COMPONENT);
    offer(mortal, "of a mortal");
    KXmessage foreign_name = make_message(1, 1, MSG_REQ, CMD_UNREG_COMPONENT, 5);
    foreign_name << "server";
    EXPECT_EQ("the name is not the sender's", tell(mortal, foreign_name));
    notify(mortal, CMD_UNREG_COMPONENT);
    EXPECT_EQ("nobody offers 'of a mortal'", ask(client, CMD_SUB_FUNCTION, "of a mortal"));
    EXPECT_EQ(nullptr, peers.at_data(mortal.data.path()));
    EXPECT_EQ("the sender is not registered", ask(mortal, CMD_SUB_FUNCTION, "get"));
  }
  EXPECT_EQ(size, peers.size());
  EXPECT_EQ(descriptors, open_descriptors());
}

TEST_F(registrations, free_a_service_whose_owner_does_not_exist_any_more) {
  raw_component heir("heir");
  ask(heir, CMD_REG_COMPONENT);
  notify(server, CMD_UNREG_FUNCTION, get);
  std::optional<raw_component> mortal("mortal");
  ask(*mortal, CMD_REG_COMPONENT);
  offer(*mortal, "get");
  pass(client, get, proxy, MSG_REQ, 3, *mortal);
  unlink(mortal->mgmt.path().c_str());
  EXPECT_EQ("'get' is offered by mortal", ask(heir, CMD_REG_FUNCTION, "get")) << "its socket is still there";
  mortal.reset();
  EXPECT_EQ(get, offer(heir, "get")) << "with users it has its old siid";
  EXPECT_EQ("ERR 3 (the component is gone)", client.arrived());
  EXPECT_EQ("REQ 4", pass(client, get, proxy, MSG_REQ, 4, heir));
  EXPECT_EQ(nullptr, peers.at_mgmt("/tmp/kxcore/mortal"));
}

TEST_F(registrations, are_refused_when_the_core_is_stopping) {
  management.close();
  EXPECT_EQ("the core is stopping", ask(other, CMD_REG_COMPONENT));
  EXPECT_EQ("", ask(other, CMD_SUB_FUNCTION, "get"));
}

TEST_F(registrations, work_where_the_system_gives_no_descriptor_of_a_process) {
  seam::fail(seam::PIDFD_OPEN, ENOSYS, 9);
  for (int times = 0; times < 2; ++times)
    EXPECT_EQ("", ask(other, CMD_REG_COMPONENT));
  seam::fail(seam::PIDFD_OPEN, 0, 0);
  seam::fail(seam::EPOLL_CTL, ENOSPC);
  EXPECT_EQ("", ask(other, CMD_REG_COMPONENT));
  EXPECT_TRUE(seam::logged("cannot watch a descriptor of other: No space left on device"));
}
