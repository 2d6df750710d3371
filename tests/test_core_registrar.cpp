// Management: who may register, offer, use and withdraw what, and how a refusal reads.
#include <poll.h>
#include <sys/stat.h>

#include <csignal>

#include "core_probe.h"

using registrations = rooms;
using managements = rooms;

TEST_F(managements, are_answered_with_their_numbers_and_what_is_granted) {
  for (const std::string use : {"hears tick; tick", "uses get; get"}) {
    const std::string name = use.substr(use.find(';') + 2);
    play("client " + use + " is client." + name + "~");
    int end = 0;
    reply >> end;
    EXPECT_EQ(number("client." + name + "#") + 4096, end);
  }
  reply.size = 0;
  EXPECT_EQ(hex(bytes_of(make_message(1, 1, MSG_RSP, CMD_SUB_FUNCTION, at("client").last_id))),
            hex(bytes_of(reply)));
}

TEST_F(managements, are_refused_with_a_payload_that_does_not_parse) {
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

TEST_F(managements, are_refused_from_who_is_not_registered_and_when_they_are_no_request) {
  for (std::uint8_t each = CMD_UNREG_COMPONENT; each <= CMD_KILL_COMPONENT; ++each) {
    const auto cmd = static_cast<mgmt_cmd_e>(each);
    EXPECT_EQ("the sender is not registered", ask(at("stranger"), cmd, "get")) << cmd;
    play("other registers; forget");
    ask(at("other"), cmd, "get", 0, MSG_SIG);
    EXPECT_EQ(MSG_NONE, reply.m_header->msg_type) << cmd << " answers a notice";
    EXPECT_EQ(awaits_reply(cmd), seam::logged("it is not a request")) << cmd;
  }
  for (const int cmd : {0, 11, 12, 255})
    EXPECT_EQ("the core does not serve this command", ask(at("server"), mgmt_cmd_e(cmd))) << cmd;
  for (const msg_type_e type : {MSG_NONE, MSG_RSP, MSG_ERR, msg_type_e{5}}) {
    play("forget");
    ask(at("server"), CMD_SUB_FUNCTION, "get", 0, type);
    EXPECT_TRUE(seam::logged("it is neither a request nor a notice")) << type;
  }
}

TEST_F(managements, are_refused_with_an_unsuitable_name) {
  for (const std::string& name :
       {std::string(), std::string(256, 'x'), std::string("a\n"), std::string("a\x7F")})
    for (const mgmt_cmd_e cmd : {CMD_REG_FUNCTION, CMD_SUB_FUNCTION})
      EXPECT_EQ("the name is empty, longer than 255 bytes or has control characters",
                ask(at("other"), cmd, name));
  play("other offers " + std::string(255, 'x') + "; other offers \xC3\xA4");
}

TEST_F(managements, are_refused_when_no_message_ids_are_left) {
  peer greedy{"greedy", {"/tmp/kxcore/greedy", 0, 0}, ""};
  while (peers.services().has_message_ids())
    peers.services().subscribe(greedy, peers.services().find_offered("tick"));
  play("other uses get = all message ids are in use, none are left for 'get'");
  peers.services().forget(greedy);
  play("other uses get");
}

TEST_F(managements, for_which_there_is_no_memory_are_answered) {
  const KXmessage message = at("other").make(CMD_SUB_FUNCTION, "get", 0);
  without_memory([&](int) { serve_mgmt(at("other"), message); });
  EXPECT_NE(std::string::npos, raw_component::arrived(at("other").mgmt).find("(no memory)"));
}

TEST_F(registrations, without_memory_change_nothing_and_are_not_reported) {
  raw_component& late = at("late with a name that takes memory");
  const KXmessage message = late.make(CMD_REG_COMPONENT, "", 0);
  play("forget");
  without_memory([&](int fails_at) {
    if (registered(late.name) != nullptr) return;
    EXPECT_EQ(nullptr, peers.at_data(late.data.path())) << fails_at;
    EXPECT_FALSE(seam::logged(" registered with ")) << fails_at;
    seam::clear_lines();
    serve_mgmt(late, message);
  });
  EXPECT_NE(nullptr, registered(late.name));
}

static const scenes<managements> of_services("managements", R"(
are refused from a process that uses the socket of another
  client pid self+1; client leaves = the sender is not registered
  client pid 0; client leaves = the sender is not registered
  client pid self; client uid own+1; client leaves; >> client
  client uid own; client uses get

are told with the numbers that were granted
  other uses get; lines other subscribed to function 'get' (siid 6, message ids 8192-12287) = 1

name the service in a refusal
  other offers get = 'get' is offered by server; server signals get = 'get' is offered by server
  other offers kxcore.x = 'kxcore.x' is a name of the core's; other offers kxcorex; other offers my.kxcore.x
  other uses absent = nobody offers 'absent'; other uses tick = 'tick' is a signal
  other hears get = 'get' is a function; server withdraws get; other uses get = nobody offers 'get'

take back nothing that is not the sender's
  | other withdraws get
  | server withdraws client.get
  | server withdraws tick
  | server retires get
  | other releases client.get
  | client ignores client.get
  | server releases tick
  client uses get; $1 = the siid is not the sender's; client SIG get client.get 5 > server = SIG 5

that are refused are counted and thinned out for each component and for strangers
  17 times client uses x = nobody offers 'x'; 17 times stranger uses x = the sender is not registered
  lines refused SUB-FUNCTION of client ( = 9; lines refused SUB-FUNCTION of [/tmp/kxcore/stranger] ( = 9
  lines refused SUB-FUNCTION of client (16 so far): nobody offers 'x' = 1
  client SIG 999 client.get 1; lines dropped a message of client (1 so far) = 1

let a component hold 1024 services and subscriptions
  1022 times other hears tick; other offers own; other uses get
  other offers more = no 'more': it holds 1024 services and subscriptions, which is the limit
  other hears tick = no 'tick': it holds 1024 services and subscriptions, which is the limit
  other releases other.get; other offers more; other ignores other.tick; other uses get
  other withdraws more; other hears tick

keep a service under its siid as long as it has users
  | offers  | server uses f; other withdraws f | client offers f; f is old
  | offers  | server uses f; other withdraws f | other offers f; f is old = no
  | offers  | other withdraws f                | client offers f; f is old = no
  | signals | server hears f; other retires f  | client signals f; f is old
  | signals | server hears f; other retires f  | other signals f; f is old
  | signals | server hears f; other retires f  | client offers f; f is old = no
  other $1 f; f as old; $2; client uses f = nobody offers 'f'; $3

release a service with the last of its users
  other uses get; get as old; server withdraws get; other releases other.get; client SIG get client.get 5
  server offers get; client releases client.get; other uses get; server leaves; server registers
  other offers get
  get is old = no; server uses get; other SIG old other.get 5; lines no service has this siid = 1

release a signal with both its siids
  client hears tick; tick as old; server retires tick; client SIG old client.tick 5
  lines the service is not offered any more = 1; client ignores client.tick
  server SIG old get 5; server SIG client.tick get 5; lines no service has this siid = 2

share the ranges of a signal within a component
  client hears tick; client.tick# as first; client hears tick; client.tick# is first = no; other hears tick
  client.tick is other.tick; client.tick# is other.tick# = no; client ignores client.tick; client hears tick
  client.tick# is first; client ignores client.tick; client ignores client.tick
  client ignores client.tick = the siid is not the sender's; client releases client.get
)");

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
  EXPECT_EQ(nullptr, registered("../off-bus"));
  EXPECT_NE(nullptr, registered("good")) << "one of the same name in another directory evicts it";
}

TEST_F(registrations, give_up_the_dead_when_no_descriptors_are_left) {
  at("more");
  play("mortal registers; SOCKET fails EMFILE; more registers; SOCKET fails ENFILE; more registers");
  EXPECT_NE(nullptr, registered("mortal")) << "it lives";
  const long before = open_descriptors();
  play("SOCKET fails EMFILE 9; other registers = its sockets cannot be reached: Too many open files");
  play("SOCKET fails 0 0");
  EXPECT_EQ(before, open_descriptors());
  for (const char* const error : {"EMFILE", "ENFILE"}) {
    play("mortal registers; mortal goes");
    long at_retry = open_descriptors();
    const long with_dead = at_retry;
    seam::before(seam::SOCKET, [&at_retry] { at_retry = std::min(at_retry, open_descriptors()); });
    play(std::string("SOCKET fails ") + error + "; other registers");
    seam::before(seam::SOCKET, nullptr);
    EXPECT_LT(at_retry, with_dead) << "a dead one has kept its descriptors";
    EXPECT_EQ(nullptr, registered("mortal"));
  }
  EXPECT_NE(nullptr, registered("server"));
}

TEST_F(registrations, of_a_living_process_of_another_user_keep_the_name) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  give("name", 1234);
  play("name pid 1; PIDFD_OPEN fails ENOSYS; name registers");
  give("name", 1235);
  play(R"(name pid self; name registers = a process of another user has the name, and lives; KILL fails EPERM
          name registers = a process of another user has the name, and lives; forget; KILL fails ESRCH 9
          name registers; lines has removed a socket of = 0)");
}

TEST_F(registrations, need_sockets_that_no_other_component_has) {
  for (const raw_socket* const stolen : {&at("server").mgmt, &at("server").data}) {
    for (const std::string taken : {"/tmp/kxcore/thief", "/tmp/kxcore/thief-d"}) {
      play("thief registers");
      unlink(taken.c_str());
      EXPECT_EQ(0, link(stolen->path().c_str(), taken.c_str()));
      play("thief registers = the sockets at its paths are not its own");
      unlink(taken.c_str());
      EXPECT_EQ(0, symlink(stolen->path().c_str(), taken.c_str()));
      play("thief registers = its sockets cannot be reached: Socket operation on non-socket");
      unlink(taken.c_str());
      play("thief registers = its sockets cannot be reached: No such file or directory");
      EXPECT_NE(nullptr, registered("thief")) << "what is refused takes the registration before away";
      remove("thief");
    }
  }
}

TEST_F(registrations, need_sockets_of_the_users_own) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a socket away";
  for (const raw_socket* const foreign : {&at("late").mgmt, &at("late").data}) {
    EXPECT_EQ(0, chown(foreign->path().c_str(), 1234, 0));
    ask(at("late"), CMD_REG_COMPONENT);  // which is not answered at a management socket of another's
    EXPECT_EQ(nullptr, registered("late")) << foreign->path();
    EXPECT_EQ(0, chown(foreign->path().c_str(), 0, 0));
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
    play("client uses its = nobody offers 'its'; mortal uses get = the sender is not registered");
    EXPECT_EQ(nullptr, peers.at_data("/tmp/kxcore/mortal-d"));
    remove("mortal");
  }
  EXPECT_EQ(3u, peers.size());
  EXPECT_EQ(descriptors, open_descriptors());
}

static const scenes<registrations> of_components("registrations", R"(
replace the one before and warn when that lives
  twice pid 1; twice registers; twice registers; lines has removed a socket of = 0
  twice pid self; twice registers; lines of twice (pid 1), which lives: that gets nothing any more = 1
  forget; twice-d pid 1; twice-d registers; lines which lives: no new sender reaches that, their names = 1
  forget; twice goes; twice registers; lines which lives: no new sender reaches that, their names = 1

of who could not be told yet are those of the sockets owner
  late uid 65534; late pid 0; late registers; late uid own; late pid self; late uses get

free a service whose owner does not exist any more
  server withdraws get; mortal registers; mortal offers get; client REQ get client.get 3 > mortal = REQ 3
  get as old; heir registers; mortal vanishes; heir offers get = 'get' is offered by mortal
  CONNECT fails EPERM; heir offers get = 'get' is offered by mortal; mortal goes
  heir offers get; get is old; > client = ERR 3 (the component is gone)
  client REQ get client.get 4 > heir = REQ 4
  mortal uses get = the sender is not registered

are not freed by the offer of the same component
  mortal registers; mortal offers its; CONNECT fails ECONNREFUSED
  mortal offers its = 'its' is offered by mortal

work where the system does not tell the ends of processes
  PIDFD_OPEN fails ENOSYS 2; late pid 1; late registers; late pid self
  late uses get = the sender is not registered; KILL fails EPERM; late uses get = the sender is not registered
  KILL fails ESRCH; late uses get; late registers; lines of late (pid 1), which lives = 1
  EPOLL_CTL fails ENOSPC; other registers; other uses get
  lines cannot watch a descriptor of other: No space left on device = 1
)");

TEST_F(registrations, that_end_before_the_core_reads_what_they_give_back_are_not_refused_it) {
  raw_component& client = at("client");
  const auto gives_back = [&] {
    for (const KXmessage& notice : {client.make(CMD_UNSUB_FUNCTION, "", number("client.get"), MSG_SIG),
                                    client.make(CMD_UNREG_COMPONENT, "", 0, MSG_SIG)})
      serve_mgmt(client, notice);
  };
  peers.give_up(*peers.at_mgmt(client.mgmt.path()), "its socket is gone");
  peers.forget_gone();
  gives_back();
  EXPECT_EQ(1, seam::times_logged("refused UNSUB-FUNCTION of [")) << "its socket is open";
  seam::clear_lines();
  unlink(client.mgmt.path().c_str());
  gives_back();
  EXPECT_EQ(0, seam::times_logged("refused"));
}

TEST_F(registrations, of_processes_that_end_in_one_look_end_unless_a_child_goes_on) {
  child_process first([] { pause(); }), second([] { pause(); }), third([] { pause(); });
  at("first").pid = first.pid(), at("second").pid = second.pid(), at("third").pid = third.pid();
  play("first registers; second registers; third registers; first goes; third goes; other goes");
  for (child_process* const each : {&first, &second, &third})
    each->end(SIGKILL);
  serve();
  EXPECT_EQ(4u, peers.size()) << "server, client, other, whose process lives, and second";
  play("second pid self; second uses get");
  pollfd entry = {peers.fd(), POLLIN, 0};
  EXPECT_EQ(0, poll(&entry, 1, 0)) << "the end of who goes on is told again and again";
}
