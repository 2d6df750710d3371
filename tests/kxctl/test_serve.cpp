// kxctl serve: a command in place of a service.
#include <sys/stat.h>

#include <fstream>

#include "kxctl_run.h"
#include "values.h"

namespace {

class served : public bus_with_core {
 protected:
  // What a call ends with that is served so.
  static std::string called(const std::string& options, const std::string& values = "") {
    run server("kxctl serve " + options);
    EXPECT_EQ("0: ", kxctl("wait get"));
    const std::string outcome = kxctl("call get" + values);
    EXPECT_EQ(130, server.end(SIGINT));
    return outcome;
  }
};

// A client of "get", which a server offers.
class client : public stand_in {
 public:
  client() : stand_in("client") {
    EXPECT_EQ("0: ", kxctl("wait get"));
    EXPECT_TRUE(ask(CMD_SUB_FUNCTION, "get"));
  }

  void request(msg_type_e type, const std::function<void(KXmessage&)>& fill = nullptr) {
    KXmessage message = make_message(service_siid, siid, type, 5, ++first_id);
    if (fill) fill(message);
    send(message);
  }

  // "RSP ..." or "ERR ..."
  std::string answer() {
    const KXmessage message = received();
    return std::string(msg_type_name(message.m_header->msg_type)) + " " + decode(message).text();
  }
};

// In a file that the component does not have.
std::string content(const std::string& path) {
  std::string text;
  std::ifstream(path) >> text;
  return text;
}

}  // namespace

TEST_F(served, requests_are_answered_with_the_output) {
  const struct {
    std::string options, values, outcome;
  } rows[] = {
      {"get -- echo Hello", " s world", "0: s \"Hello world\""},
      {"get -- printf %s\\n", " s one", "0: s \"one\""},
      {"get -- echo", " si -n -5", "0: s \"-5\""},
      {"get -- printf two\\nlines\\n", "", "0: s \"two\\nlines\""},
      {"get -- echo", " bayt true 2 1 0xff 7", "0: s \"true 01ff 7\""},
      {"get --signature ui -- printf 7\\n-3\\n", "", "0: ui 7 -3"},
      {"get --signature  -- true", "", "0: "},
      {"get -- sh -c echo~$KX_CMD~$KX_SIGNATURE~$0", " i -5", "0: s \"0 i -5\""},
      {"get -- cat", "", "0: s \"\""},
      {"get -- false", "", "1: ! kxctl: false ended with status 1"},
      {"get -- sh -c kill~-9~$$", "", "1: ! kxctl: sh was ended by signal 9"},
      {"get -- sh -c echo~no~>&2;exit~3", "", "1: ! kxctl: no"},
      {"get -- /no/such", "", "1: ! kxctl: cannot run /no/such: No such file or directory"},
      {"get -- head -c 5000 /dev/zero", "",
       "1: ! kxctl: the command's output is no answer: the values take 4100 bytes, a message has room for "
       "2034"},
      {"get --signature u -- echo x", "",
       "1: ! kxctl: the command's output is no answer: 'x' is no unsigned int, which is 0 to 4294967295"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.outcome, called(row.options, row.values)) << row.options;
}

TEST_F(served, requests_are_shown) {
  run server("kxctl serve get -n 2 -- sh -c test~$KX_CMD~=~1");
  kxctl("wait get");
  kxctl("call get:1 i 5");
  kxctl("call get:2");
  EXPECT_EQ("0: get:1 i 5 -> RSP s \"\"\nget:2  -> ERR s \"sh ended with status 1\"", ended_with(server));
}

TEST_F(served, requests_are_shown_as_json) {
  run server("kxctl --json serve get -n 1 -- echo 7");
  kxctl("wait get");
  kxctl("call get:1 i 5");
  EXPECT_EQ(R"(0: {"answer":{"cmd":1,"data":["7 5"],"signature":"s","type":"RSP"},)"
            R"("request":{"cmd":1,"data":[5],"signature":"i","type":"REQ"}})",
            ended_with(server));
}

TEST_F(served, requests_that_are_no_arguments_are_refused) {
  run server("kxctl serve get -- echo");
  client asking;
  asking.request(MSG_REQ, [](KXmessage& message) { message << std::string("a\0b", 3); });
  EXPECT_EQ("ERR \"a value with a NUL cannot be an argument of a command\"", asking.answer());
  asking.request(MSG_REQ, [](KXmessage& message) { message.incr_size(1); });
  EXPECT_EQ("ERR \"the payload does not parse\"", asking.answer());
  server.end(SIGTERM);
}

TEST_F(served, signals_run_the_command_and_are_not_answered) {
  run server("kxctl serve get -n 2 -- sh -c echo~$KX_CMD~$KX_SIGNATURE");
  client asking;
  asking.request(MSG_SIG, [](KXmessage& message) { message << true; });
  asking.request(MSG_REQ);
  EXPECT_EQ("RSP \"5\"", asking.answer());
  EXPECT_EQ(0, server.end());
  EXPECT_EQ(MSG_NONE, asking.data.receive_message().m_header->msg_type);
}

TEST_F(served, commands_run_side_by_side) {
  // The first command waits for the second one.
  run server(
      "kxctl serve get -n 2 -- sh -c "
      "case~$0~in~1)~cat~/tmp/kxcore/.fifo;;~*)~echo~>/tmp/kxcore/.fifo;;~esac");
  mkfifo("/tmp/kxcore/.fifo", 0600);
  client asking;
  for (const int number : {1, 2})
    asking.request(MSG_REQ, [number](KXmessage& message) { message << number; });
  EXPECT_EQ(0, server.end());
  EXPECT_EQ("RSP \"\"", asking.answer());
  remove("/tmp/kxcore/.fifo");
}

TEST_F(served, no_more_commands_run_side_by_side_than_may) {
  const std::string log = "/tmp/kxcore/.log";
  run server("kxctl serve get -n 6 --jobs 2 -- sh -c echo~1~>>" + log + ";sleep~0.02;echo~-1~>>" + log);
  client asking;
  for (int number = 0; number < 6; ++number)
    asking.request(MSG_REQ);
  EXPECT_EQ(0, server.end());
  int running = 0;
  int most = 0;
  std::ifstream steps(log);
  for (int step = 0; steps >> step;)
    most = std::max(most, running += step);
  EXPECT_EQ(2, most);
  remove(log.c_str());
}

TEST_F(served, commands_end_with_the_server) {
  run server("kxctl serve get -- sh -c sleep~1000&~echo~$!~>/tmp/kxcore/.pid;wait");
  client asking;
  asking.request(MSG_REQ);
  ASSERT_TRUE(comes_true([] { return !content("/tmp/kxcore/.pid").empty(); }));
  const pid_t sleeping = std::stoi(content("/tmp/kxcore/.pid"));
  EXPECT_EQ(130, server.end(SIGINT));
  EXPECT_TRUE(comes_true([sleeping] { return kill(sleeping, 0) != 0; }));
  remove("/tmp/kxcore/.pid");
}

TEST_F(served, commands_that_hold_their_output_open_behind_their_end_are_not_waited_for) {
  EXPECT_EQ("0: s \"done\"", called("get -- sh -c sleep~1000&~echo~done"));
}

TEST_F(served, nothing_is_beyond_the_time) { EXPECT_EQ("124: ", kxctl("--timeout 0.05 serve get -- true")); }

TEST_F(served, a_name_is_only_once) {
  stand_in server("server");
  server.ask(CMD_REG_FUNCTION, "get");
  EXPECT_EQ("1: ! kxctl: 'get' is offered by server", kxctl("serve get -- true"));
}
