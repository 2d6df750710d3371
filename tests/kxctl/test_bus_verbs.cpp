// The verbs that send and receive: call, send, emit and listen.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <regex>

#include "kxctl_run.h"
#include "values.h"

namespace {

constexpr unsigned char gone = 2, offered = 3, subscribed = 5;

using fill = std::function<void(KXmessage&)>;

template <typename Value>
fill with(const Value& value) {
  return [value](KXmessage& message) { message << value; };
}

void nothing(KXmessage&) {}

// Bytes that are no values.
void broken(KXmessage& message) {
  message << true;
  message.data[message.offset + message.size] = 0x0C;
  message.incr_size(1);
}

class calls : public bus_with_core {
 protected:
  void SetUp() override {
    bus_with_core::SetUp();
    server = std::make_unique<stand_in>("server");
    server->ask(
        CMD_REG_FUNCTION, "get", 0,
        "<interface><method cmd=\"7\" name=\"read\"><arg name=\"metric\" type=\"s\"/></method></interface>");
  }
  void TearDown() override {
    server.reset();
    bus_with_core::TearDown();
  }

  // What a call ends with that is answered so.
  std::string answered(const std::string& line, msg_type_e type, const fill& values) {
    run call("kxctl " + line);
    request = server->received();
    server->answer(request, type, values);
    return ended_with(call);
  }

  std::unique_ptr<stand_in> server;
  KXmessage request;
};

class signals : public bus_with_core {
 protected:
  // A signal of a server.
  static KXmessage signal_of(const stand_in& server, unsigned char cmd, unsigned int value) {
    KXmessage message = make_message(server.siid, server.siid, MSG_SIG, cmd, 0);
    message << value;
    return message;
  }
};

}  // namespace

TEST_F(calls, show_the_answer) {
  const struct {
    std::string options;
    msg_type_e type;
    fill values;
    std::string outcome;
  } rows[] = {
      {"", MSG_RSP, with("Hello, \"world\""), R"(0: s "Hello, \"world\"")"},
      {"", MSG_RSP, nothing, "0: "},
      {"", MSG_RSP, broken, "0: b? true ? 0c"},
      {"", MSG_ERR, with("no, never\n"), R"(1: ! kxctl: no, never\x0a)"},
      {"", MSG_ERR, with(5), "1: ! kxctl: 5"},
      {"", MSG_ERR, nothing, "1: ! kxctl: it is refused, without a reason"},
      {"--json ", MSG_RSP, with(-5), R"(0: {"cmd":0,"data":[-5],"signature":"i","type":"RSP"})"},
      {"--json ", MSG_RSP, with("\xFF"),
       R"(0: {"cmd":0,"data":[{"hex":"ff"}],"signature":"s","type":"RSP"})"},
      {"--json ", MSG_ERR, with("no"),
       R"(1: {"cmd":0,"data":["no"],"signature":"s","type":"ERR"}! kxctl: no)"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.outcome, answered(row.options + "call get", row.type, row.values));
}

TEST_F(calls, send_the_command_and_the_values) {
  answered("call get:9 si a~text -2", MSG_RSP, nothing);
  EXPECT_EQ(9, request.m_header->cmd);
  EXPECT_EQ("\"a text\" -2", decode(request).text());
}

TEST_F(calls, begin_with_the_second_id_of_their_range) {
  answered("call get", MSG_RSP, nothing);
  EXPECT_EQ(1U, ntohl(request.m_header->msg_id) % 0x1000);
}

TEST_F(calls, find_a_command_by_its_name) {
  answered("call get:read s load", MSG_RSP, nothing);
  EXPECT_EQ(7, request.m_header->cmd);
}

TEST_F(calls, refuse_a_command_that_is_not_described) {
  EXPECT_EQ("2: ! kxctl: 'get' describes no command 'write': see kxctl introspect, or give its number",
            kxctl("call get:write"));
}

TEST_F(calls, take_nothing_for_the_answer_that_is_none) {
  run call("kxctl call get");
  request = server->received();
  const auto alter = [this](msg_type_e type, unsigned int id) {
    KXmessage other = request;
    other.m_header->msg_id = htonl(id);
    server->answer(other, type, with("other"));
  };
  const unsigned int id = ntohl(request.m_header->msg_id);
  alter(MSG_RSP, id + 1);
  alter(MSG_SIG, id);
  server->answer(request, MSG_RSP, with("own"));
  EXPECT_EQ("0: s \"own\"", ended_with(call));
}

TEST_F(calls, end_when_no_answer_comes_in_time) {
  EXPECT_EQ("124: ! kxctl: no answer in time: the service is stopped, or takes longer (--timeout)",
            kxctl("--timeout 0.05 call get"));
}

TEST_F(calls, end_in_order_when_they_are_interrupted) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    watcher bus;
    run call("kxctl call get");
    server->received();
    EXPECT_EQ("130: ", ended_with(call, signal));
    bus.await(gone, call.name());
  }
}

TEST_F(calls, tell_in_the_words_of_the_core_why_they_are_refused) {
  EXPECT_EQ("1: ! kxctl: nobody offers 'nix'", kxctl("call nix"));
}

TEST_F(calls, tell_what_is_wrong_on_the_command_line) {
  const struct {
    const char *line, *problem;
  } rows[] = {
      {"call", "the name of a service is missing"},
      {"call :3", "the name of a service is missing"},
      {"call get:256", "a command is 0 to 255, not 256"},
      {"call get y 256", "'256' is no unsigned char, which is 0 to 255"},
      {"call get s", "a value is missing: string"},
      {"call get s a b", "'b' is more than the signature has"},
      {"listen", "SERVICE is required: see kxctl --help"},
      {"frob", "there is no verb 'frob': see kxctl --help"},
      {"--timeout 0 list", "--timeout: 0 is no number of seconds above 0: see kxctl --help"},
      {"--timeout nan list", "--timeout: nan is no number of seconds above 0: see kxctl --help"},
      {"--timeout 1e10 list", "--timeout: 1e10 is no number of seconds above 0: see kxctl --help"},
      {"--timeout 1x list", "--timeout: 1x is no number of seconds above 0: see kxctl --help"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(std::string("2: ! kxctl: ") + row.problem, kxctl(row.line));
}

TEST_F(calls, take_options_behind_the_verb) {
  EXPECT_EQ(R"(0: {"cmd":0,"data":[1],"signature":"i","type":"RSP"})",
            answered("call --json get", MSG_RSP, with(1)));
}

TEST_F(calls, are_helped_with_their_words) {
  EXPECT_NE(std::string::npos, kxctl("call --help").find("SERVICE[:COMMAND] [SIGNATURE VALUE...]"));
}

TEST_F(calls, send_signals_to_a_function) {
  run send("kxctl send get:3 u 5");
  request = server->received();
  EXPECT_EQ("0: ", ended_with(send));
  EXPECT_EQ(MSG_SIG, request.m_header->msg_type);
  EXPECT_EQ(3, request.m_header->cmd);
  EXPECT_EQ("5", decode(request).text());
}

TEST_F(signals, are_emitted_to_who_subscribed_before) {
  stand_in server("server");
  stand_in client("client");
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  client.ask(CMD_SUB_SIGNAL, "tick");
  server.tell(CMD_UNREG_SIGNAL, server.siid);
  EXPECT_EQ("0: ", kxctl("emit tick:4 u 7"));
  const KXmessage signal = client.received();
  EXPECT_EQ(MSG_SIG, signal.m_header->msg_type);
  EXPECT_EQ(4, signal.m_header->cmd);
  EXPECT_EQ("7", decode(signal).text());
  EXPECT_EQ("0: ", kxctl("--timeout 1 emit --wait tick u 8"));
}

TEST_F(signals, wait_for_a_first_subscriber) {
  watcher bus;
  stand_in client("client");
  run emit("kxctl emit --wait tick u 7");
  bus.await(offered, "tick");
  client.ask(CMD_SUB_SIGNAL, "tick");
  EXPECT_EQ("0: ", ended_with(emit));
  EXPECT_EQ("7", decode(client.received()).text());
}

TEST_F(signals, end_without_a_subscriber_in_time) {
  EXPECT_EQ("124: ! kxctl: nobody subscribes to 'tick' in time", kxctl("--timeout 0.05 emit --wait tick"));
}

TEST_F(signals, are_listened_to_until_there_are_enough) {
  stand_in server("server");
  watcher bus;
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  const unsigned int tick = server.siid;
  server.ask(CMD_REG_SIGNAL, "tock", 2);
  run listen("kxctl listen tick tock -n 2");
  bus.await(subscribed, "tock");
  server.send(signal_of(server, 3, 5));
  server.siid = tick;
  server.send(signal_of(server, 0, 6));
  EXPECT_EQ(
      "0: TIME tock:3 u 5\nTIME tick:0 u 6",
      std::regex_replace(ended_with(listen), std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}"), "TIME"));
}

TEST_F(signals, are_listened_to_as_json) {
  stand_in server("server");
  watcher bus;
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  run listen("kxctl --json listen tick -n 1");
  bus.await(subscribed, "tick");
  const std::int64_t before = std::chrono::system_clock::now().time_since_epoch().count();
  server.send(signal_of(server, 3, 5));
  EXPECT_EQ(0, listen.end());
  nlohmann::json shown = nlohmann::json::parse(listen.out());
  const auto time = shown["time"].get<std::int64_t>();
  EXPECT_LE(before, time);
  EXPECT_GT(before + 10'000'000'000, time);
  shown.erase("time");
  EXPECT_EQ(R"({"cmd":3,"data":[5],"service":"tick","signature":"u","type":"SIG"})", shown.dump());
}

TEST_F(signals, are_listened_to_until_the_time_is_over_or_a_signal_comes) {
  stand_in server("server");
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  EXPECT_EQ("124: ", kxctl("--timeout 0.05 listen tick"));
  watcher bus;
  run listen("kxctl listen tick");
  bus.await(subscribed, "tick");
  EXPECT_EQ("130: ", ended_with(listen, SIGINT));
}

TEST_F(signals, end_quietly_when_nobody_reads_them) {
  stand_in server("server");
  watcher bus;
  server.ask(CMD_REG_SIGNAL, "tick", 2);
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  close(ends[0]);
  run listen("kxctl listen tick", [&] { dup2(ends[1], STDOUT_FILENO); });
  close(ends[1]);
  bus.await(subscribed, "tick");
  server.send(signal_of(server, 3, 5));
  EXPECT_EQ("0: ", ended_with(listen));
}

TEST_F(signals, end_with_the_reason_when_they_cannot_be_written) {
  const auto fill_disk = [] { dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); };
  run list("kxctl list", fill_disk);
  EXPECT_EQ("1: ! kxctl: cannot write to standard output: No space left on device", ended_with(list));
}
