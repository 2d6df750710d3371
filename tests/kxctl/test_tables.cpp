// The verbs that show tables: what the core tells, for people, scripts, Prometheus and shells.
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "kxctl_run.h"

namespace {

constexpr char described[] =
    "<interface><method cmd=\"7\" name=\"read\"><arg direction=\"in\" name=\"metric\" type=\"s\"/>"
    "<arg direction=\"out\" name=\"value\" type=\"u\" unit=\"kB\"/></method>"
    "<signal cmd=\"3\" name=\"load\"><arg name=\"load\" type=\"u\"/></signal></interface>";

// What differs from run to run is replaced: the pid of the test as PID, the user's as UID, siids of the core
// as SIID, and times.
std::string usual(std::string text) {
  const std::pair<std::string, std::string> changes[] = {{" *\\b" + std::to_string(getpid()) + "\\b", " PID"},
                                                         {"\\(\\s*PID\\)", "(PID)"},
                                                         {"21474836[0-9]{2}", "SIID"},
                                                         {"[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}", "TIME"},
                                                         {"\"since\":[0-9]+", "\"since\":TIME"}};
  for (const auto& [pattern, name] : changes)
    text = std::regex_replace(text, std::regex(pattern), name);
  return text;
}

class tables : public bus_with_core {
 protected:
  void SetUp() override {
    bus_with_core::SetUp();
    server = std::make_unique<stand_in>("server");
    client = std::make_unique<stand_in>("client");
    server->ask(CMD_REG_FUNCTION, "get", 0, described);
    server->ask(CMD_REG_SIGNAL, "tick", 2);
    for (int times = 0; times < 2; ++times)
      client->ask(CMD_SUB_SIGNAL, "tick");
    client->ask(CMD_SUB_FUNCTION, "get");
    ask();
  }
  void TearDown() override {
    server.reset();
    client.reset();
    bus_with_core::TearDown();
  }

  // A request, and its answer; a refusal.
  void ask() {
    client->send(make_message(client->service_siid, client->siid, MSG_REQ, 7, client->first_id + 1));
    server->answer(server->received(), MSG_RSP, [](KXmessage& message) { message << 5U; });
    client->received();
    client->ask(CMD_SUB_FUNCTION, "nix");
  }

  std::unique_ptr<stand_in> server, client;
};

// The line of a page that begins so.
std::string line_of(const std::string& page, const std::string& begin) {
  std::istringstream lines(page);
  std::string line;
  while (std::getline(lines, line) && line.rfind(begin, 0) != 0) {
  }
  return line;
}

}  // namespace

TEST_F(tables, list_components) {
  const std::string row = std::regex_replace(usual(kxctl("list components client")), std::regex(" +"), " ");
  EXPECT_EQ("0: COMPONENT PID UID SERVICES USES SENT RECEIVED QUEUED LOST STATE\nclient PID " +
                std::to_string(geteuid()) + " 0 3 1 1 0 0",
            row);
}

TEST_F(tables, list_services) {
  EXPECT_EQ(
      "0: SERVICE           KIND          SIID  USERS  COMPONENT\n"
      "get               sync             2      1  server\n"
      "kxcore.directory  sync    SIID      1  kxcore\n"
      "kxcore.events     signal  SIID      0  kxcore\n"
      "kxcore.stats      sync    SIID      1  kxcore\n"
      "tick              signal           3      2  server",
      usual(kxctl("list services")));
}

TEST_F(tables, list_what_matches) {
  const struct {
    const char *line, *outcome;
  } rows[] = {
      {"list --names", "0: client\nserver\nget\nkxcore.directory\nkxcore.events\nkxcore.stats\ntick"},
      {"list --names components", "0: client\nserver"},
      {"list --names services t*", "0: tick"},
      {"list --names [cg]*", "0: client\nget"},
      {"--no-header list services get", "0: get  sync  2  1  server"},
      {"--json list services get",
       R"(0: {"services":[{"component":"server","kind":"sync","service":"get","siid":2,"subscribers_siid":0,"users":1}]})"},
      {"--json list nix", R"(0: {"components":[],"services":[]})"},
      {"list get nix", "2: ! kxctl: too many words: see kxctl list --help"},
      {"list services get nix", "2: ! kxctl: too many words: see kxctl list --help"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(row.outcome, kxctl(row.line)) << row.line;
}

TEST_F(tables, list_more_than_a_page) {
  for (int number = 100; number < 150; ++number)
    server->ask(CMD_REG_FUNCTION, std::string(100, 'x') + std::to_string(number));
  std::string expected = "0: ";
  for (int number = 100; number < 150; ++number)
    expected += (number > 100 ? "\n" : "") + std::string(100, 'x') + std::to_string(number);
  EXPECT_EQ(expected, kxctl("list --names services xx*"));
}

TEST_F(tables, show_a_tree) {
  EXPECT_EQ("0: client (PID)\n└─ uses get, tick", usual(kxctl("tree client")));
  EXPECT_EQ(
      "0: server (PID)\n├─ get   sync    siid 2  1 user: client\n└─ tick  signal  siid 3  1 user: client (2 "
      "times)",
      usual(kxctl("tree server")));
  EXPECT_EQ("1: ! kxctl: no component 'nix' is registered", kxctl("tree nix"));
}

TEST_F(tables, show_the_tree_of_all) {
  server->tell(CMD_UNREG_FUNCTION, 2);
  EXPECT_EQ(usual("0: kxcore\n"
                  "├─ kxcore.directory  sync    siid SIID  0 users\n"
                  "├─ kxcore.events     signal  siid SIID  0 users\n"
                  "└─ kxcore.stats      sync    siid SIID  0 users\n") +
                "client (PID)\n└─ uses tick\n"
                "server (PID)\n└─ tick  signal  siid 3  1 user: client (2 times)\n"
                "(offered by nobody)\n└─ get  sync  siid 2  0 users",
            usual(kxctl("tree")));
}

TEST_F(tables, show_the_tree_as_json) {
  const std::string tree = kxctl("--json tree");
  const auto shown = nlohmann::json::parse(tree.substr(3));
  EXPECT_EQ(R"(["get","tick"])", shown["components"][0]["uses"].dump());
  EXPECT_EQ(R"(["get","tick"])", shown["components"][1]["offers"].dump());
  EXPECT_EQ(R"([{"component":"client","proxies":2}])", shown["services"].back()["used_by"].dump());
}

TEST_F(tables, show_all_of_a_component) {
  const std::string page = usual(kxctl("status client"));
  for (const char* const line :
       {"pid, uid: PID", "since:         TIME", "sockets:       /tmp/kxcore/client, /tmp/kxcore/client-d",
        "state:         reads", "sent:          1 messages, 14 bytes", "received:      1 messages, 19 bytes",
        "queue:         0 bytes wait in the core, 0 at most; 0 unread in its socket",
        "losses:        1 refused, 0 dropped, 0 lost", "grants:        3 of 1024", "offers:        -",
        "uses:          get, tick", "why:           1 times: nobody offers 'nix'"})
    EXPECT_NE(std::string::npos, page.find(line)) << line << " is not in\n" << page;
}

TEST_F(tables, show_all_of_a_service) {
  EXPECT_EQ(
      "0: service:       get\nkind:          sync\ncomponent:     server\nsiid:          2\n"
      "users:         1 user: client\nrequests:      1, answered by 1 RSP and 0 ERR\nsignals:       0",
      kxctl("status get"));
  server->tell(CMD_UNREG_FUNCTION, 2);
  EXPECT_EQ("component:     nobody offers it at present", line_of(kxctl("status get"), "component"));
  EXPECT_EQ("1: ! kxctl: no component 'nix' is registered, and no service of this name", kxctl("status nix"));
}

TEST_F(tables, show_all_as_json) {
  EXPECT_EQ(
      R"(0: {"component":"server","errors":0,"kind":"sync","requests":1,"responses":1,"service":"get","signals":0,"siid":2,"subscribers_siid":0,"used_by":[{"component":"client","proxies":1}],"users":1})",
      kxctl("--json status get"));
  EXPECT_EQ(R"([{"reason":"nobody offers 'nix'","times":1}])",
            nlohmann::json::parse(kxctl("--json status client").substr(3))["reasons"].dump());
}

TEST_F(tables, tell_who_does_not_read) {
  for (int times = 0; times < 20; ++times)
    client->send(make_message(client->service_siid, client->siid, MSG_SIG, 7, 0));
  EXPECT_EQ("state:         does not read", line_of(kxctl("status server"), "state"));
  EXPECT_NE(std::string::npos, kxctl("list components server").find("does not read"));
  EXPECT_NE(std::string::npos, kxctl("tree server").find("), does not read"));
  EXPECT_EQ("FAIL  server (pid " + std::to_string(getpid()) + ")",
            line_of(kxctl("doctor"), "FAIL  server").substr(0, 20 + std::to_string(getpid()).size() - 1));
}

TEST_F(tables, show_the_description_of_a_service) {
  EXPECT_EQ(
      "0: class a class\nCMD  NAME  KIND    IN        OUT\n"
      "  7  read  method  metric s  value u [kB]\n  3  load  signal            load u",
      kxctl("introspect get"));
  EXPECT_EQ("1: ! kxctl: nobody offers 'nix'", kxctl("introspect nix"));
  const auto shown = nlohmann::json::parse(kxctl("--json introspect get").substr(3));
  EXPECT_EQ(
      R"({"cmd":7,"in":[{"name":"metric","type":"s","unit":""}],"kind":"method","name":"read","out":[{"name":"value","type":"u","unit":"kB"}]})",
      shown["commands"][0].dump());
}

TEST_F(tables, show_other_descriptions_as_they_are) {
  server->ask(CMD_REG_FUNCTION, "odd", 0, "reads\x1B\na metric");
  EXPECT_EQ("0: class a class\nreads\\x1b\na metric", kxctl("introspect odd"));
  EXPECT_EQ("0: class a class\nit tells nothing about its commands", kxctl("introspect tick"));
}

TEST_F(tables, show_what_was_counted) {
  const std::string page = kxctl("stats");
  EXPECT_EQ("client        1     14         1     19        1        0     0       0     0       0       3",
            line_of(page, "client"));
  EXPECT_EQ("get                      1    1    0        0", line_of(page, "get"));
}

TEST_F(tables, show_what_was_counted_to_prometheus) {
  server->ask(CMD_REG_FUNCTION, "a\"\\b");
  const std::string page = kxctl("stats --prometheus");
  for (const char* const line :
       {"# HELP kestrix_component_refused_total Management requests and notices that were refused",
        "# TYPE kestrix_component_refused_total counter",
        "kestrix_component_refused_total{component=\"client\"} 1", "# TYPE kestrix_component_grants gauge",
        "kestrix_service_requests_total{service=\"get\"} 1",
        "kestrix_service_requests_total{service=\"a\\\"\\\\b\"} 0"})
    EXPECT_EQ(line, line_of(page, line));
}

TEST_F(tables, show_rates_again_and_again) {
  run top("kxctl --json top -d 0.05 -n 2");
  EXPECT_TRUE(comes_true([&] { return !top.out().empty(); }));
  ask();
  EXPECT_EQ(0, top.end());
  const std::string text = top.out();
  const auto shown = nlohmann::json::parse(text.substr(text.find('\n')));
  EXPECT_LT(10.0, shown["components"][0]["sent_per_s"].get<double>());
  EXPECT_GE(20.0, shown["components"][0]["sent_per_s"].get<double>());
}

TEST_F(tables, are_sorted_by_what_is_asked_for) {
  ask();
  const auto first = [](const std::string& key) {
    return nlohmann::json::parse(
               kxctl("--json top -d 0.01 -n 1 -s " + key).substr(3))["components"][0]["component"]
        .get<std::string>();
  };
  EXPECT_EQ("client", first("refused"));
  for (int times = 0; times < 20; ++times)
    client->send(make_message(client->service_siid, client->siid, MSG_SIG, 7, 0));
  EXPECT_EQ("server", first("queued_bytes"));
}

TEST_F(tables, end_in_time) {
  EXPECT_EQ("124", kxctl("--timeout 0.05 top -d 0.03").substr(0, 3));
  watcher bus;
  run top("kxctl top");
  bus.await(5, top.name());
  EXPECT_EQ("130: ", ended_with(top, SIGINT));
}

TEST_F(tables, leave_the_terminal_as_it_was) {
  int terminal = -1;
  int program_side = -1;
  ASSERT_EQ(0, openpty(&terminal, &program_side, nullptr, nullptr, nullptr));
  termios before = {};
  tcgetattr(program_side, &before);
  run top("kxctl top -d 0.01", [&] { dup2(program_side, STDIN_FILENO), dup2(program_side, STDOUT_FILENO); });
  std::string shown;
  const auto read_all = [&] {
    char text[4096];
    const ssize_t length = read(terminal, text, sizeof text);
    shown.append(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  };
  while (shown.find("server") == std::string::npos)
    read_all();
  EXPECT_EQ(1, write(terminal, "q", 1));
  while (shown.find("\x1B[?1049l") == std::string::npos)
    read_all();
  EXPECT_EQ("0: ", ended_with(top));
  termios after = {};
  tcgetattr(program_side, &after);
  EXPECT_EQ(before.c_lflag, after.c_lflag);
  close(terminal);
  close(program_side);
}

TEST_F(tables, complete_in_a_shell) {
  const struct {
    const char *line, *candidates;
  } rows[] = {
      {"tree ~", "client\nserver"},
      {"call g", "get\nkxcore.directory\nkxcore.events\nkxcore.stats\ntick"},
      {"status ~", "get\nkxcore.directory\nkxcore.events\nkxcore.stats\ntick\nclient\nserver"},
      {"--timeout 5 tree ~", "client\nserver"},
      {"list ~", "components\nservices"},
      {"completion ~", "bash\nzsh\nfish"},
      {"stats --", "--help\n--json\n--no-header\n--prometheus\n--timeout\n--version"},
      {"stats ~", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(std::string("0: ") + row.candidates, kxctl(std::string("completion words -- ") + row.line))
        << row.line;
  }
}
