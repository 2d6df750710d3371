// Management: who may register, offer, use and withdraw what, and how a refusal reads.
#include <sys/stat.h>

#include <csignal>

#include "core_probe.h"

using registrations = rooms;

TEST_F(rooms, answer_requests_with_their_numbers_and_what_is_granted) {
  play("client uses get; get is client.get~");
  int end = 0;
  reply >> end;
  EXPECT_EQ(number("client.get#") + 4096, end);
  reply.size = 0;
  EXPECT_EQ(hex(bytes_of(make_message(1, 1, MSG_RSP, CMD_SUB_FUNCTION, at("client").last_id))),
            hex(bytes_of(reply)));
}

TEST_F(rooms, refuse_a_payload_that_does_not_parse) {
  const int values[] = {0, 2, 1, 5, 5, 1, 1, 1, 1, 1, 1};  // of each command
  for (std::uint8_t cmd = CMD_REG_COMPONENT; cmd <= CMD_UNSUB_SIGNAL; ++cmd) {
    for (int given = 0; given < values[cmd]; ++given) {
      KXmessage message = make_message(1, 1, MSG_REQ, cmd, 5);
      for (int i = 0; i < given; ++i)
        message << "other";
      EXPECT_EQ("the payload does not parse", tell(at("other"), message)) << int{cmd} << given;
      reply.size = 0;
      EXPECT_EQ(hex(bytes_of(make_message(1, 1, MSG_ERR, cmd, 5))), hex(bytes_of(reply)));
    }
  }
  for (const mgmt_cmd_e cmd : {CMD_REG_FUNCTION, CMD_REG_SIGNAL})
    for (const int type : {-1, 0, 1, 2, 3})
      EXPECT_EQ(type < 0 || type > 2 || (type == 2) != (cmd == CMD_REG_SIGNAL),
                !ask(at("other"), cmd, std::to_string(10 * cmd + type), type).empty());
}

TEST_F(rooms, refuse_who_is_not_registered_and_what_is_no_request) {
  for (std::uint8_t each = CMD_UNREG_COMPONENT; each <= CMD_KILL_COMPONENT; ++each) {
    const auto cmd = static_cast<mgmt_cmd_e>(each);
    EXPECT_EQ("the sender is not registered", ask(at("stranger"), cmd, "get")) << cmd;
    play("other registers");
    seam::clear_lines();
    ask(at("other"), cmd, "get", 0, MSG_SIG);
    EXPECT_EQ(MSG_NONE, reply.m_header->msg_type) << cmd << " answers a notice";
    EXPECT_EQ(awaits_reply(cmd), seam::logged("it is not a request")) << cmd;
  }
  for (const int cmd : {0, 11, 12, 255})
    EXPECT_EQ("the core does not serve this command", ask(at("server"), mgmt_cmd_e(cmd))) << cmd;
  for (const msg_type_e type : {MSG_NONE, MSG_RSP, MSG_ERR, msg_type_e{5}}) {
    seam::clear_lines();
    ask(at("server"), CMD_SUB_FUNCTION, "get", 0, type);
    EXPECT_TRUE(seam::logged("it is neither a request nor a notice")) << type;
  }
}

TEST_F(rooms, refuse_a_process_that_uses_the_socket_of_another) {
  raw_component& client = at("client");
  client.pid += 1;
  play("client leaves = the sender is not registered");
  client.pid = 0;
  play("client leaves = the sender is not registered");
  client.pid = getpid(), client.uid += 1;
  play("client leaves");  // and is not even answered
  EXPECT_TRUE(is_registered("client")) << "another process has unregistered it";
}

TEST_F(rooms, name_the_service_in_a_refusal) {
  play(
      "other offers get = 'get' is offered by server; server signals get = 'get' is offered by server; "
      "other offers kxcore.x = 'kxcore.x' is a name of the core's; other offers kxcorex; "
      "other uses absent = nobody offers 'absent'; other uses tick = 'tick' is a signal; "
      "other hears get = 'get' is a function; other withdraws get = the siid is not the sender's; "
      "server withdraws client.get = the siid is not the sender's; server retires get = the siid is not the "
      "sender's; other releases client.get = the siid is not the "
      "sender's; client ignores client.get = the siid is not the sender's; client releases client.get; "
      "server withdraws get; other uses get = nobody offers 'get'");
  const std::string longest(255, 'x');
  for (const std::string& name : {std::string(), longest + "x", std::string("a\n"), std::string("a\x7F")})
    for (const mgmt_cmd_e cmd : {CMD_REG_FUNCTION, CMD_SUB_FUNCTION})
      EXPECT_EQ("the name is empty, longer than 255 bytes or has control characters",
                ask(at("other"), cmd, name));
  play("other offers " + longest + "; other offers \xC3\xA4");
}

TEST_F(rooms, count_and_thin_out_the_refusals_of_each_component_and_of_strangers) {
  for (int i = 0; i < 17; ++i)
    play("client uses x = nobody offers 'x'; stranger uses x = the sender is not registered");
  for (const char* const who : {"client", "[/tmp/kxcore/stranger]"})
    EXPECT_EQ(9, seam::times_logged("refused SUB-FUNCTION of " + std::string(who) + " (")) << who;
  EXPECT_TRUE(seam::logged("refused SUB-FUNCTION of client (16 so far): nobody offers 'x'"));
  play("client SIG 999 client.get 1");
  EXPECT_TRUE(seam::logged("dropped a message of client (1 so far)")) << "counted with the refusals";
}

TEST_F(rooms, let_a_component_hold_1024_services_and_subscriptions) {
  for (int i = 0; i < 1022; ++i)
    play("other hears tick");
  const std::string limit = ": it holds 1024 services and subscriptions, which is the limit; ";
  play("other offers own; other uses get; other offers more = no 'more'" + limit +
       "other hears tick = no 'tick'" + limit +
       "other releases other.get; other offers more; other ignores other.tick; other uses get");
}

TEST_F(rooms, say_when_no_message_ids_are_left) {
  peer greedy{"greedy", {"/tmp/kxcore/greedy", 0, 0}, ""};
  while (peers.services().has_message_ids())
    peers.services().subscribe(greedy, peers.services().find_offered("tick"));
  play("other uses get = all message ids are in use, none are left for 'get'");
  peers.services().forget(greedy);
  play("other uses get");
}

TEST_F(rooms, answer_a_request_for_which_there_is_no_memory) {
  const KXmessage message = at("other").make(CMD_SUB_FUNCTION, "get", 0);
  bool is_refused = false;
  for (int fails_at = 1; fails_at < 40; ++fails_at) {
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    try {
      serve_mgmt(at("other"), message);
    } catch (const std::bad_alloc&) {  // before or after the handler: the core's turn counts it
    }
    seam::fail(seam::NEW, 0, 0);
    is_refused |= raw_component::arrived(at("other").mgmt).find("(no memory)") != std::string::npos;
  }
  EXPECT_TRUE(is_refused);
}

TEST_F(rooms, lose_nobody_when_a_component_is_added_without_memory) {
  raw_component& late = at("late with a name that takes memory");
  for (int fails_at = 1; !is_registered(late.name); ++fails_at) {
    auto added = std::make_unique<peer>(late.name, sender{late.mgmt.path(), 0, late.uid}, late.data.path());
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    try {
      peers.add(std::move(added));
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(nullptr, peers.at_data(late.data.path())) << fails_at;
    }
    seam::fail(seam::NEW, 0, 0);
  }
}

TEST_F(registrations, are_of_a_name_and_sockets_that_belong_together) {
  mkdir("/tmp/kxcore/sub", 0777);
  const std::string control = "the name is empty, longer than 255 bytes or has control characters",
                    its_name = "the name is not that of its management socket", bus = "/tmp/kxcore/",
                    beside = "the data socket is not the one beside its management socket",
                    core = "these are the core's own sockets";
  const struct {
    std::string socket, name, data, reason;
  } rows[] = {{"good", "good", "good-d", ""},
              {"good", "ood", "good-d", its_name},
              {"good", "", "good-d", control},
              {"good", "good", "sub/good-d", beside},
              {"good", "good", "good", beside},
              {"od\nd", "od\nd", "od\nd-d", control},
              {"sub/good", "good", "sub/good-d", ""},
              {"o\td", "d", "o\td-d", "its management socket is not on the bus"},
              {"../off-bus", "off-bus", "../off-bus-d", ""},  // it gets no answer
              {"kxcore", "kxcore", "kxcore-d", core},
              {"kxcore-d", "kxcore-d", "kxcore-d-d", core}};
  for (const auto& row : rows) {
    KXmessage message = make_message(1, 1, MSG_REQ, CMD_REG_COMPONENT, 1);
    message << row.name, message << bus + row.data;
    EXPECT_EQ(row.reason, tell(at(row.socket), message)) << row.name << " " << row.data;
    remove(row.socket == "good" ? "" : row.socket);
  }
  EXPECT_FALSE(is_registered("../off-bus"));
  EXPECT_TRUE(is_registered("good")) << "one of the same name in another directory evicts it";
}

TEST_F(registrations, need_sockets_that_can_be_reached_and_descriptors) {
  unlink(at("half").data.path().c_str());
  play("half registers = its sockets cannot be reached: No such file or directory; mortal registers");
  at("more");
  for (const int error : {EMFILE, ENFILE}) {
    seam::fail(seam::SOCKET, error);
    play("more registers");
    EXPECT_TRUE(is_registered("mortal")) << "it lives";
  }
  const long before = open_descriptors();
  seam::fail(seam::SOCKET, EMFILE, 9);
  play("other registers = its sockets cannot be reached: Too many open files");
  seam::fail(seam::SOCKET, 0, 0);
  EXPECT_EQ(before, open_descriptors());
  remove("mortal");
  const long with_dead = open_descriptors();
  long at_retry = with_dead;
  seam::before(seam::SOCKET, [&at_retry] { at_retry = std::min(at_retry, open_descriptors()); });
  seam::fail(seam::SOCKET, EMFILE);
  play("other registers");
  EXPECT_LT(at_retry, with_dead) << "a dead one has kept its descriptors";
  EXPECT_FALSE(is_registered("mortal"));
  EXPECT_TRUE(is_registered("server"));
}

TEST_F(registrations, replace_the_one_before_and_warn_when_that_lives) {
  child_process living([] { pause(); });
  const pid_t child = living.pid();
  const struct {
    std::string renewed, name;  // whose sockets are bound again; who registers
    pid_t pid;
    std::string warning;  // or none
  } rows[] = {{"", "twice", child, ""},
              {"", "twice", child, ""},
              {"", "twice", getpid(), "of twice (pid " + std::to_string(child) + "), which lives"},
              {"", "twice-d", child, "their names may not differ by -d alone"},
              {"twice", "twice", getppid(), "their names may not differ by -d alone"}};
  for (const auto& row : rows) {
    remove(row.renewed);
    seam::clear_lines();
    at(row.name).pid = row.pid;
    play(row.name + " registers");
    EXPECT_EQ(!row.warning.empty(), seam::logged(") has removed a socket of ")) << row.name << row.pid;
    EXPECT_TRUE(seam::logged(row.warning)) << row.name << row.pid;
  }
}

TEST_F(registrations, of_a_living_process_of_another_user_keep_the_name) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  child_process living([] { pause(); });
  const auto becomes = [this](uid_t user, pid_t process) {
    raw_component& name = at("name");
    for (const raw_socket* const each : {&name.mgmt, &name.data})
      EXPECT_EQ(0, chown(each->path().c_str(), user, 0));
    name.uid = user, name.pid = process;
  };
  becomes(1234, living.pid());
  play("name registers");
  becomes(1235, getpid());
  play("name registers = a process of another user has the name, and lives");
  living.end(SIGKILL);
  seam::clear_lines();
  play("name registers");
  EXPECT_FALSE(seam::logged("has removed a socket of")) << "from who is dead";
}

TEST_F(registrations, need_sockets_of_the_users_own_that_no_other_component_has) {
  at("foreign").uid += 1;
  play("foreign registers");
  EXPECT_FALSE(is_registered("foreign"));
  raw_component& late = at("late");
  late.uid = sender::overflow_uid, late.pid = 0;
  play("late registers");  // the system did not tell yet whose it is
  late.uid = geteuid(), late.pid = getpid();
  play("late uses get");  // it is the owner of the file
  for (const raw_socket* const stolen : {&at("server").mgmt, &at("server").data}) {
    for (const std::string taken : {"/tmp/kxcore/thief", "/tmp/kxcore/thief-d"}) {
      play("thief registers");
      unlink(taken.c_str());
      EXPECT_EQ(0, link(stolen->path().c_str(), taken.c_str()));
      play("thief registers = the sockets at its paths are not its own");
      unlink(taken.c_str());
      EXPECT_EQ(0, symlink(stolen->path().c_str(), taken.c_str()));
      play("thief registers = its sockets cannot be reached: Socket operation on non-socket");
      EXPECT_TRUE(is_registered("thief")) << "what is refused takes the registration before away";
      remove("thief");
    }
  }
}

TEST_F(registrations, end_with_all_that_was_granted) {
  const long descriptors = open_descriptors();
  for (int i = 0; i < 3; ++i) {
    play("mortal registers; mortal offers its");
    KXmessage foreign_name = make_message(1, 1, MSG_REQ, CMD_UNREG_COMPONENT, 5);
    foreign_name << "server";
    EXPECT_EQ("the name is not the sender's", tell(at("mortal"), foreign_name));
    play("mortal leaves");
    EXPECT_EQ(MSG_RSP, reply.m_header->msg_type) << "who is gone is answered, too";
    play(
        "client uses its = nobody offers 'its'; mortal uses get = the sender is not "
        "registered");
    EXPECT_EQ(nullptr, peers.at_data("/tmp/kxcore/mortal-d"));
    remove("mortal");
  }
  EXPECT_EQ(3u, peers.size());
  EXPECT_EQ(descriptors, open_descriptors());
}

TEST_F(registrations, free_a_service_whose_owner_does_not_exist_any_more) {
  play(
      "server withdraws get; mortal registers; mortal offers get; client REQ get client.get 3 > mortal = REQ "
      "3; "
      "get as old; heir registers");
  unlink("/tmp/kxcore/mortal");
  play("heir offers get = 'get' is offered by mortal");  // its socket is still there
  seam::fail(seam::CONNECT, EPERM);
  play("heir offers get = 'get' is offered by mortal");  // nobody can tell
  remove("mortal");
  play(
      "heir offers get; get is old; client > client = ERR 3 (the component is gone); "
      "client REQ get client.get 4 > heir = REQ 4");
  EXPECT_FALSE(is_registered("mortal"));
}

TEST_F(registrations, are_refused_when_the_core_is_stopping) {
  management.close();
  play("other registers = the core is stopping; other uses get");
}

TEST_F(registrations, work_where_the_system_does_not_tell_the_ends_of_processes) {
  seam::fail(seam::PIDFD_OPEN, ENOSYS, 3);
  child_process living([] { pause(); });
  at("late").pid = living.pid();
  play("late registers");
  at("late").pid = getpid();
  play("late uses get = the sender is not registered; late registers");
  EXPECT_TRUE(seam::logged("of late (pid " + std::to_string(living.pid()) + "), which lives"));
  at("late").pid = living.pid();
  play("late registers");
  living.end(SIGKILL);
  at("late").pid = getpid();
  play("late uses get");
  seam::fail(seam::EPOLL_CTL, ENOSPC);
  play("other registers; other uses get");
  EXPECT_TRUE(seam::logged("cannot watch a descriptor of other: No space left on device"));
}

// --- the services of the directory, as their users see them ---

TEST_F(rooms, keep_a_service_under_its_siid_as_long_as_it_has_users) {
  const struct {
    const char *what, *first, *use, *end, *then, *same;
  } rows[] = {
      {"a function of another registration", "offers", "uses", "withdraws", "client offers f", "f is old"},
      {"one that its own registration withdrew", "offers", "uses", "withdraws", "other offers f",
       "f is old = no"},
      {"a function without users", "offers", nullptr, "withdraws", "client offers f", "f is old = no"},
      {"a signal", "signals", "hears", "retires", "client signals f", "f is old"},
      {"one that its own registration withdrew", "signals", "hears", "retires", "other signals f",
       "f is old"},
      {"another kind", "signals", "hears", "retires", "client offers f", "f is old = no"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    play(std::string("client registers; other registers; server registers; other ") + row.first +
         " f; f as old");
    if (row.use != nullptr) play(std::string("server ") + row.use + " f");
    play(std::string("other ") + row.end + " f; client uses f = nobody offers 'f'; " + row.then + "; " +
         row.same);
  }
}

TEST_F(rooms, release_a_service_with_the_last_of_its_users) {
  play(
      "other uses get; get as old; server withdraws get; other releases other.get; client SIG get client.get "
      "5; "
      "server offers get; client releases client.get; other uses get; server leaves; server registers; other "
      "offers "
      "get; get is old = no; server uses get");
  EXPECT_EQ(nullptr, peers.services().find(static_cast<std::uint32_t>(number("old"))));
}

TEST_F(rooms, share_the_ranges_of_a_signal_within_a_component) {
  play(
      "client hears tick; client.tick# as first; client hears tick; client.tick# is first = no; other hears "
      "tick; "
      "client.tick is other.tick; client.tick# is other.tick# = no; client ignores client.tick; client hears "
      "tick; "
      "client.tick# is first; client ignores client.tick; client ignores client.tick; "
      "client ignores client.tick = the siid is not the sender's");
  play("client releases client.get");
  for (const char* const given_back : {"first", "client.get#"})
    EXPECT_EQ(nullptr, peers.services().id_holder(std::uint32_t(number(given_back))).component) << given_back;
  EXPECT_NE(nullptr, peers.services().id_holder(std::uint32_t(number("other.tick#"))).component);
}
