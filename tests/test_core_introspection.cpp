// What the core tells about the bus: its own services, and the records that monitors get.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "clock.h"
#include "core_probe.h"
#include "introspection.h"

namespace {

constexpr char monitor_directory[] = "/tmp/kxcore/.kxcore";
constexpr auto nobody = static_cast<gid_t>(-1);

// The values of a payload, strings in quotes.
std::string text_of(const KXmessage& message) {
  std::ostringstream text;
  while (message.pos < message.size) {
    text << (message.pos > 0 ? " " : "");
    const int tag = message.data[message.offset + message.pos];
    const auto take = [&](auto value) { message >> value, text << value; };
    if (tag == TAG_STRING) text << '"', take(std::string()), text << '"';
    if (tag == TAG_UINT32) take(0u);
    if (tag == TAG_INT32) take(0);
    if (tag == TAG_UINT64) take(0ull);
    if (tag == TAG_BOOL) take(false);
  }
  return text.str();
}

std::string behind_generation(const std::string& page) { return page.substr(page.find(' ') + 1); }

// A program that is connected to the socket for monitors.
class watcher {
 public:
  watcher() : m_socket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = socket_address(std::string(monitor_directory) + "/monitor");
    m_is_connected =
        connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  void say(const KXmessage& what) {
    EXPECT_EQ(what.size,
              ::send(m_socket.get(), what.data + what.offset, static_cast<std::size_t>(what.size), 0));
  }
  void greet(unsigned int version = record_version, const std::string& components = "",
             const std::string& services = "") {
    KXmessage hello;
    hello << version, hello << components, hello << services;
    say(hello);
  }

  // The next record; false when there is none. At the end of the connection it has ended.
  bool take() {
    const ssize_t size = recv(m_socket.get(), m_bytes, sizeof m_bytes, 0);
    has_ended = size == 0;
    return size > 0 && read_record(m_bytes, static_cast<std::size_t>(size), last, body);
  }

  // The records that have come, each as "SENT client>server get (the reason)".
  std::string seen() {
    static const char* const names[] = {"",         "SENT",    "QUEUED",   "DELIVERED",
                                        "REFUSED",  "DROPPED", "RECEIVED", "COMPONENTS",
                                        "SERVICES", "EVENT",   "MARK"};
    std::string text;
    while (take()) {
      const auto part = [](const char* before, std::string_view value, const char* after) {
        return value.empty() ? std::string() : before + std::string(value) + after;
      };
      text += (text.empty() ? "" : ", ") + std::string(names[last.event]) + part(" ", last.sender, "") +
              part(">", last.receiver, "") + part(" ", last.service, "") + part(" (", last.reason, ")");
    }
    return text;
  }

  bool m_is_connected = false;
  bool has_ended = false;
  record last{};
  std::string_view body;

 private:
  unique_fd m_socket;
  unsigned char m_bytes[4096];
};

// The rooms with the core's own services.
class told : public rooms {
 protected:
  void SetUp() override { play(everybody); }
  void TearDown() override { report.monitors.close(), rooms::TearDown(); }

  void serve_mgmt(raw_component& from, const KXmessage& message) override {
    report.monitors.arrived({88, record_is_management});
    rooms::serve_mgmt(from, message), inside.tell_events();
  }
  void serve_data(raw_component& from, const KXmessage& message) override {
    rooms::serve_data(from, message), inside.tell_events();
  }

  // What a service of the core answers: the values, or why not.
  std::string answer(const std::string& service, unsigned char cmd, const std::vector<std::string>& values,
                     msg_type_e type = MSG_REQ) {
    if (!m_uses.count(service)) play("asking registers; asking uses " + service), m_uses.insert(service);
    KXmessage request = make_message(siid(service + "~"), siid(service), type, cmd, siid(service + "#") + 1);
    for (const std::string& value : values)
      request << value;
    serve_data(at("asking"), request);
    const KXmessage answered = at("asking").data.receive_message();
    if (answered.m_header->msg_type == MSG_NONE) return "nothing";
    EXPECT_EQ(request.m_header->msg_id, answered.m_header->msg_id);
    EXPECT_EQ(request.m_header->src_siid, answered.m_header->dst_siid);
    EXPECT_EQ(cmd, answered.m_header->cmd);
    return (answered.m_header->msg_type == MSG_ERR ? "ERR " : "") + text_of(answered);
  }
  std::string page(const std::string& service, unsigned char cmd,
                   const std::vector<std::string>& values = {""}) {
    return behind_generation(answer(service, cmd, values));
  }
  unsigned int siid(const std::string& of) const { return static_cast<unsigned int>(number("asking." + of)); }

  void serve_monitors() {
    report.monitors.serve([this](const traffic::show_t& show) { inside.show_state(show); });
    inside.tell_events();
  }
  std::unique_ptr<watcher> watch(const std::string& components = "", const std::string& service = "") {
    EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
    auto made = std::make_unique<watcher>();
    made->greet(record_version, components, service);
    serve_monitors();
    made->seen();
    return made;
  }

  introspection inside{peers, outsiders, report};

 private:
  std::set<std::string> m_uses;
};

}  // namespace

TEST_F(told, components_with_their_sockets_and_grants_in_order) {
  const auto row = [this](const std::string& name, const char* grants) {
    const peer& of = *peers.at_mgmt("/tmp/kxcore/" + name);
    std::ostringstream text;
    text << " \"" << name << "\" \"" << name << "\" " << getpid() << " " << geteuid() << " " << of.since_ns
         << " \"/tmp/kxcore/" << name << "\" \"/tmp/kxcore/" << name << "-d\" " << grants;
    return text.str();
  };
  const std::uint64_t hour_ago = now_ns(CLOCK_REALTIME) - 3'600'000'000'000;
  EXPECT_LT(hour_ago, peers.at_mgmt("/tmp/kxcore/client")->since_ns);
  const std::string all = page("kxcore.directory", 1);
  EXPECT_EQ("0" + row("asking", "0 1") + row("client", "0 1") + row("other", "0 0") + row("server", "2 0"),
            all);
  EXPECT_EQ("0" + row("other", "0 0") + row("server", "2 0"), page("kxcore.directory", 1, {"client"}));
}

TEST_F(told, services_with_their_siids_their_owner_and_how_many_use_them) {
  play("client uses get; client hears tick; client hears tick; server offers late; asking registers");
  const auto row = [this](const std::string& name) { return std::to_string(number(name)); };
  play("client uses late; server withdraws late");
  const std::string of_signal = std::to_string(number("client.tick"));
  EXPECT_EQ("0 \"get\" 0 " + row("get") +
                " 0 \"server\" 2 \"kxcore.directory\" 0 2147483631 0 \"kxcore\" 1 " +
                "\"kxcore.events\" 2 2147483633 2147483634 \"kxcore\" 0 \"kxcore.stats\" 0 2147483632 0 "
                "\"kxcore\" 0 " +
                "\"late\" 0 " + row("late") + " 0 \"\" 1 \"tick\" 2 " + row("tick") + " " + of_signal +
                " \"server\" 2",
            page("kxcore.directory", 2));
}

TEST_F(told, users_of_functions_and_signals) {
  play("client uses get; other uses get; other hears tick; other hears tick");
  EXPECT_EQ("0 \"client\" 2 \"other\" 1", page("kxcore.directory", 3, {"get", ""}));
  EXPECT_EQ("0 \"other\" 1", page("kxcore.directory", 3, {"get", "client"}));
  EXPECT_EQ("0 \"other\" 2", page("kxcore.directory", 3, {"tick", ""}));
  play("client releases client.get; other ignores other.tick");
  EXPECT_EQ("0 \"client\" 1 \"other\" 1", page("kxcore.directory", 3, {"get", ""}));
  EXPECT_EQ("0 \"other\" 1", page("kxcore.directory", 3, {"tick", ""}));
}

TEST_F(told, what_a_service_says_of_itself) {
  KXmessage offer = make_message(1, 1, MSG_REQ, CMD_REG_FUNCTION, 7);
  offer << "server", offer << "told", offer << "<interface/>", offer << "a class", offer << 1u;
  EXPECT_EQ("", tell(at("server"), offer));
  EXPECT_EQ("\"<interface/>\" \"a class\"", answer("kxcore.directory", 4, {"told"}));
  EXPECT_NE(std::string::npos, page("kxcore.directory", 2).find("\"told\" 1 "));
}

TEST_F(told, nothing_where_a_question_makes_no_sense) {
  const struct {
    std::string service;
    unsigned char cmd;
    std::vector<std::string> values;
    std::string answer;
  } rows[] = {{"kxcore.directory", 0, {""}, "ERR \"this service has no such command\""},
              {"kxcore.directory", 5, {""}, "ERR \"this service has no such command\""},
              {"kxcore.directory", 1, {}, "ERR \"the payload does not parse\""},
              {"kxcore.directory", 3, {"get"}, "ERR \"the payload does not parse\""},
              {"kxcore.directory", 3, {"none", ""}, "ERR \"nobody offers 'none'\""},
              {"kxcore.directory", 4, {"none"}, "ERR \"nobody offers 'none'\""},
              {"kxcore.directory", 1, {"", ""}, "ERR \"the payload does not parse\""},
              {"kxcore.stats", 1, {"", ""}, "ERR \"the payload does not parse\""},
              {"kxcore.stats", 0, {""}, "ERR \"this service has no such command\""},
              {"kxcore.stats", 4, {""}, "ERR \"this service has no such command\""},
              {"kxcore.stats", 2, {}, "ERR \"the payload does not parse\""},
              {"kxcore.stats", 3, {"client"}, "ERR \"the payload does not parse\""},
              {"kxcore.stats", 3, {"none", ""}, "ERR \"no component 'none' is registered\""}};
  for (const auto& row : rows)
    EXPECT_EQ(row.answer, answer(row.service, row.cmd, row.values)) << row.service << int(row.cmd);
  for (const msg_type_e type : {MSG_RSP, MSG_ERR, MSG_SIG})
    EXPECT_EQ("nothing", answer("kxcore.directory", 1, {""}, type)) << type;
  EXPECT_EQ(3u, peers.at_mgmt("/tmp/kxcore/asking")->of_its_own.dropped);
}

TEST_F(told, long_lists_in_pages_of_one_generation) {
  std::string expected, seen;
  for (int i = 100; i < 250; ++i) {
    const std::string name = "a service with a name of some length " + std::to_string(i);
    EXPECT_EQ("", ask(at("other"), CMD_REG_FUNCTION, name));
    expected += "\"" + name + "\" ";
  }
  int pages = 0;
  std::string after, first;
  for (bool more = true; more; ++pages) {
    std::string rows = answer("kxcore.stats", 2, {after});
    if (pages == 0) first = rows.substr(0, rows.find(' '));
    EXPECT_EQ(first, rows.substr(0, rows.find(' ')));
    more = behind_generation(rows)[0] == '1';
    for (std::size_t at = 0; (at = rows.find("\"a service", at)) != std::string::npos; ++at)
      after = rows.substr(at + 1, rows.find('"', at + 1) - at - 1), seen += "\"" + after + "\" ";
    ASSERT_LT(pages, 20);
  }
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(7, pages);
}

TEST_F(told, the_generation_counts_the_changes_of_the_directory) {
  const auto generation = [this] { return report.events.generation(); };
  std::string counts;
  for (const char* const step :
       {"late registers", "late offers x", "client uses x", "client releases client.x", "late withdraws x",
        "late leaves", "client uses none = nobody offers 'none'"}) {
    const unsigned int before = generation();
    play(step);
    counts += std::to_string(generation() - before);
  }
  EXPECT_EQ("1111110", counts);
}

TEST_F(told, counters_of_components_and_services) {
  play(
      "client REQ get client.get 5 > server = REQ 5; server RSP client.get get 5 > client = RSP 5;"
      "client REQ get client.get 6 > server = REQ 6; server ERR client.get get 6 > client = ERR 6;"
      "server RSP client.get get 6 > client = RSP 6; client SIG get client.get 1 > server = SIG 1;"
      "other hears tick; client hears tick; server SIG tick tick 0 > other = SIG 0;"
      "client REQ 99 client.get 5; client uses none = nobody offers 'none'");
  EXPECT_EQ("0 \"get\" 2 2 1 1", page("kxcore.stats", 2).substr(0, 15));
  EXPECT_NE(std::string::npos, page("kxcore.stats", 2).find("\"tick\" 0 0 0 1"));
  const std::string counted = "0 \"client\" 4 56 5 ";
  EXPECT_EQ(counted, page("kxcore.stats", 1, {"asking"}).substr(0, counted.size()));
  EXPECT_NE(std::string::npos, page("kxcore.stats", 1, {"asking"}).find(" 1 0 0 0 0 ")) << "one is refused";
}

TEST_F(told, nothing_counts_for_a_service_that_does_not_reach_it) {
  remove("server");
  play("client REQ get client.get 5");
  EXPECT_EQ("0 \"get\" 0 0 0 0", page("kxcore.stats", 2).substr(0, 15));
}

TEST_F(told, queues_losses_and_what_a_component_has_not_read) {
  play("asking registers; asking uses kxcore.stats");
  play("SEND fails EAGAIN 9999");
  for (int i = 0; i < 3; ++i)
    play("client REQ get client.get 5 > server");
  play("SEND fails 0 0; serve; SEND fails EAGAIN 9999");
  play("client REQ get client.get 5; server uses get");
  const peer& server = *peers.at_mgmt("/tmp/kxcore/server");
  const std::size_t queued = server.data.queued() + server.mgmt.queued();
  EXPECT_EQ(14 + outlet::cost_beside_bytes, server.data.queued());
  for (int i = 0; i < 2000; ++i)
    serve_data(at("client"), make_message(static_cast<unsigned>(number("get")),
                                          static_cast<unsigned>(number("client.get")), MSG_SIG, 0, 1));
  EXPECT_LT(0u, server.data.total().lost);
  const std::size_t most = server.data.total().highest_queue + server.mgmt.total().highest_queue;
  seam::fail(seam::SEND, 0, 0);
  const std::string row = page("kxcore.stats", 1, {"other"});
  std::ostringstream expected;
  expected << "0 \"server\" 0 0 3 42 0 0 " << server.data.total().lost << " "
           << server.data.queued() + server.mgmt.queued() << " " << most << " ";
  EXPECT_EQ(expected.str(), row.substr(0, expected.str().size()));
  EXPECT_LT(3 * 14, std::stoi(row.substr(expected.str().size())))
      << "the system counts more than their bytes";
  EXPECT_EQ(" 3", row.substr(row.size() - 2));
  EXPECT_LT(server.data.queued(), queued + most);
  play("SEND fails 0 0; serve");
  EXPECT_EQ(most, server.data.total().highest_queue + server.mgmt.total().highest_queue);
}

TEST_F(told, why_messages_were_not_accepted_of_each_component_and_of_strangers) {
  play(
      "client uses none = nobody offers 'none'; client uses none = nobody offers 'none';"
      "client SIG 99 client.get 5 > client; stranger uses get = the sender is not registered");
  EXPECT_EQ("0 \"no service has this siid\" 1 \"nobody offers 'none'\" 2",
            page("kxcore.stats", 3, {"client", ""}));
  EXPECT_EQ("0 \"nobody offers 'none'\" 2", page("kxcore.stats", 3, {"client", "no service has this siid"}));
  EXPECT_EQ("0 \"the sender is not registered\" 1", page("kxcore.stats", 3, {"", ""}));
}

TEST_F(told, no_more_than_32_reasons_of_each) {
  for (int i = 0; i < 40; ++i)
    ask(at("client"), CMD_SUB_FUNCTION, "none" + std::to_string(i));
  EXPECT_EQ("0 \"other reasons\" 8", page("kxcore.stats", 3, {"client", "nobody x"}));
}

TEST_F(told, events_of_the_bus_to_who_listens) {
  const struct {
    std::string steps, events;
  } rows[] = {{"late registers", "1 \"late\" \"\" \"\""},
              {"late offers x", "3 \"late\" \"x\" \"\""},
              {"client uses x", "5 \"client\" \"x\" \"\""},
              {"client releases client.x", "6 \"client\" \"x\" \"it ended its subscription\""},
              {"client uses y = nobody offers 'y'", "7 \"client\" \"\" \"SUB-FUNCTION: nobody offers 'y'\""},
              {"late withdraws x", "4 \"late\" \"x\" \"it was withdrawn\""},
              {"late withdraws x = the siid is not the sender's",
               "7 \"late\" \"\" \"UNREG-FUNCTION: the siid is not the sender's\""},
              {"stranger uses y = the sender is not registered",
               "7 \"[/tmp/kxcore/stranger]\" \"\" \"SUB-FUNCTION: the sender is not registered\""},
              {"late offers x; late uses get; late leaves",
               "3 \"late\" \"x\" \"\", 5 \"late\" \"get\" \"\", 2 \"late\" \"\" \"it unregistered\", "
               "4 \"late\" \"x\" \"the component is gone\", 6 \"late\" \"get\" \"the component is gone\""},
              {"late registers; late hears tick; late hears tick; late leaves",
               "1 \"late\" \"\" \"\", 5 \"late\" \"tick\" \"\", 5 \"late\" \"tick\" \"\", "
               "2 \"late\" \"\" \"it unregistered\", 6 \"late\" \"tick\" \"the component is gone\", "
               "6 \"late\" \"tick\" \"the component is gone\""}};
  play("asking registers; asking hears kxcore.events");
  at("asking").data.receive();
  for (const auto& row : rows) {
    play(row.steps);
    std::string events;
    for (KXmessage event; at("asking").data.receive(event);) {
      EXPECT_EQ(htonl(siid("kxcore.events")), event.m_header->dst_siid);
      events += (events.empty() ? "" : ", ") + std::to_string(event.m_header->cmd) + " " + text_of(event);
    }
    EXPECT_EQ(row.events, events) << row.steps;
  }
}

TEST_F(told, who_does_not_read_and_who_reads_again) {
  play("asking registers; asking hears kxcore.events");
  at("asking").data.receive();
  play("SEND fails EAGAIN 9999");
  play("client REQ get client.get 5 > server; client REQ get client.get 6 > server");
  play("SEND fails 0 0; serve"), inside.tell_events();
  std::string events;
  for (KXmessage event; at("asking").data.receive(event);)
    events += std::to_string(event.m_header->cmd) + " " + text_of(event) + ", ";
  EXPECT_EQ(
      "8 \"server\" \"\" \"\", 8 \"asking\" \"\" \"\", 9 \"server\" \"\" \"\", 9 \"asking\" \"\" \"\", ",
      events);
}

TEST_F(told, nothing_is_kept_of_events_that_nobody_hears) {
  report.events.note(EVENT_REGISTERED, "late");
  EXPECT_FALSE(report.events.has_some());
}

TEST_F(told, events_that_wait_are_bounded) {
  report.events.listen(true);
  for (int i = 0; i < 9000; ++i)
    report.events.note(EVENT_REGISTERED, std::to_string(i));
  int kept = 0;
  for (; report.events.has_some(); ++kept)
    EXPECT_EQ(std::to_string(kept), report.events.take().component);
  EXPECT_EQ(4096, kept);
}

TEST_F(told, components_by_their_paths_below_the_bus_directory) {
  EXPECT_EQ(0, mkdir("/tmp/kxcore/below", 0700));
  at("below/late").name = "late";
  const auto subject = watch();
  play(
      "below/late registers; below/late uses get; below/late uses none = nobody offers 'none'; below/late "
      "withdraws "
      "99 = the siid is not the sender's");
  EXPECT_EQ(
      "RECEIVED [/tmp/kxcore/below/late]>kxcore, SENT kxcore>below/late, EVENT below/late, RECEIVED "
      "below/late>kxcore, "
      "SENT kxcore>below/late, EVENT below/late get",
      subject->seen().substr(0, 156));
  EXPECT_EQ("0 \"below/late\" 1 \"client\" 1", page("kxcore.directory", 3, {"get", ""}));
  remove("below/late");
  EXPECT_EQ(0, rmdir("/tmp/kxcore/below"));
}

// --- monitors ---

TEST_F(told, monitors_see_every_message_and_what_becomes_of_it) {
  const auto subject = watch();
  const struct {
    std::string steps, seen;
  } rows[] = {
      {"client REQ get client.get 5", "SENT client>server get"},
      {"server RSP client.get get 5", "SENT server>client get"},
      {"client REQ 99 client.get 5", "DROPPED client get (no service has this siid), SENT kxcore>client get"},
      {"client REQ get 77 5",
       "REFUSED client get (its source siid is not the sender's), SENT kxcore>client get"},
      {"stranger SIG get client.get 5",
       "REFUSED [/tmp/kxcore/stranger-d]>kxcore (the sender is not registered)"},
      {"other uses kxcore.stats; other REQ other.kxcore.stats~ other.kxcore.stats 5",
       "RECEIVED other>kxcore, SENT kxcore>other, EVENT other kxcore.stats, RECEIVED other>kxcore "
       "kxcore.stats, "
       "SENT kxcore>other kxcore.stats"},
      {"other hears tick", "RECEIVED other>kxcore, SENT kxcore>other, EVENT other tick"},
      {"server SIG tick tick 5", "SENT server>other tick"},
      {"late registers", "RECEIVED [/tmp/kxcore/late]>kxcore, SENT kxcore>late, EVENT late"},
      {"late uses y = nobody offers 'y'",
       "RECEIVED late>kxcore, REFUSED late>kxcore (nobody offers 'y'), SENT kxcore>late, EVENT late "
       "(SUB-FUNCTION: nobody offers 'y')"}};
  for (const auto& row : rows) {
    play(row.steps);
    EXPECT_EQ(row.seen, subject->seen()) << row.steps;
  }
}

TEST_F(told, monitors_see_what_waits_and_what_is_lost) {
  const auto subject = watch();
  report.monitors.arrived({77, 0});
  play("SEND fails EAGAIN 9999");
  play("client REQ get client.get 5");
  EXPECT_EQ("QUEUED client>server get, EVENT server", subject->seen());
  for (int i = 0; i < 2000; ++i)
    serve_data(at("client"), make_message(static_cast<unsigned>(number("get")),
                                          static_cast<unsigned>(number("client.get")), MSG_SIG, 0, 1));
  EXPECT_NE(
      std::string::npos,
      subject->seen().find("DROPPED client>server get (the component does not read, its queue is full)"));
  play("SEND fails 0 0; serve");
  ASSERT_TRUE(subject->take());
  EXPECT_EQ(RECORD_DELIVERED, subject->last.event);
  EXPECT_EQ("client", subject->last.sender);
  EXPECT_EQ(0u, subject->last.sent_ns);
}

TEST_F(told, a_record_tells_the_datagram_its_sender_and_its_times) {
  const auto subject = watch();
  report.monitors.arrived({77, 0});
  const std::uint64_t before = now_ns(CLOCK_REALTIME), before_monotonic = now_ns(CLOCK_MONOTONIC);
  play("client REQ get client.get 5");
  ASSERT_TRUE(subject->take());
  EXPECT_EQ(hex(at("server").data.receive()),
            hex(std::vector<unsigned char>(subject->body.begin(), subject->body.end())));
  EXPECT_EQ(getpid(), subject->last.pid);
  EXPECT_EQ(77u, subject->last.sent_ns);
  EXPECT_EQ(0, subject->last.flags);
  EXPECT_LE(before, subject->last.time_ns);
  EXPECT_GT(before + 60'000'000'000, subject->last.time_ns);
  EXPECT_LE(before_monotonic, subject->last.monotonic_ns);
  EXPECT_GT(before_monotonic + 60'000'000'000, subject->last.monotonic_ns);
  play("other uses get");
  for (const std::uint64_t sent_ns : {std::uint64_t{88}, std::uint64_t{0}}) {  // the request, and the answer
    ASSERT_TRUE(subject->take());
    EXPECT_EQ(record_is_management, subject->last.flags);
    EXPECT_EQ(sent_ns, subject->last.sent_ns);
    EXPECT_EQ(getpid(), subject->last.pid);
  }
  subject->seen();
  play("stranger SIG get client.get 5");
  ASSERT_TRUE(subject->take());
  EXPECT_EQ(14u, subject->body.size());
}

TEST_F(told, the_state_of_the_bus_comes_first) {
  watch();
  const auto subject = std::make_unique<watcher>();
  subject->greet();
  serve_monitors();
  ASSERT_TRUE(subject->take());
  EXPECT_EQ(RECORD_COMPONENTS, subject->last.event);
  EXPECT_NE(std::string::npos, subject->body.find("client"));
  ASSERT_TRUE(subject->take());
  EXPECT_EQ(RECORD_SERVICES, subject->last.event);
  EXPECT_NE(std::string::npos, subject->body.find("tick"));
  EXPECT_FALSE(subject->take());
}

TEST_F(told, the_state_of_a_large_bus_takes_several_records) {
  for (int i = 100; i < 200; ++i)
    EXPECT_EQ(
        "", ask(at("other"), CMD_REG_FUNCTION, "a service with a name of some length " + std::to_string(i)));
  watch();
  watcher subject;
  subject.greet(), serve_monitors();
  std::string services;
  int records = 0;
  for (; subject.take(); ++records)
    services += subject.body;
  EXPECT_EQ(5, records);
  for (int i = 100; i < 200; ++i)
    EXPECT_NE(std::string::npos, services.find("length " + std::to_string(i))) << i;
}

TEST_F(told, only_what_a_monitor_asks_for_is_shown) {
  const auto of_other = watch("oth*"), of_tick = watch("", "t?ck");
  play("other hears tick; other uses get");
  of_other->seen(), of_tick->seen();
  play(
      "client REQ get client.get 5; other REQ get other.get 5; server SIG tick tick 0; server RSP other.get "
      "get 5");
  EXPECT_EQ("SENT other>server get, SENT server>other tick, SENT server>other get", of_other->seen());
  EXPECT_EQ("SENT server>other tick", of_tick->seen());
}

TEST_F(told, what_does_not_fit_into_a_connection_is_counted_in_the_next_record) {
  const auto subject = watch();
  std::uint32_t seen = 0, lost = 0;
  const auto look = [&] {
    for (; subject->take(); ++seen) {
      EXPECT_EQ(seen, subject->last.sequence - 2) << "behind the state";
      lost += subject->last.lost;
    }
  };
  constexpr unsigned int sent = 15'000;
  for (unsigned int i = 0; i < sent; ++i)
    play("server SIG tick tick 0"),
        i % 3 == 0 ? play("client REQ get client.get 5 > server = REQ 5") : void();
  look();
  KXmessage mark;
  mark << 1u;
  subject->say(mark), serve_monitors();
  look();
  EXPECT_EQ(RECORD_MARK, subject->last.event);
  EXPECT_EQ(sent + (sent + 2) / 3, seen - 1 + lost) << "nobody hears the signals";
  EXPECT_LT(0u, lost);
  play("client REQ get client.get 5 > server = REQ 5");
  EXPECT_TRUE(subject->take());
  EXPECT_EQ(0u, subject->last.lost);
}

TEST_F(told, a_monitor_that_does_not_greet_as_it_should_is_told_why_and_let_go) {
  KXmessage without_version, without_patterns;
  without_version << "x", without_patterns << 1u;
  const struct {
    KXmessage hello;
    std::string seen;
  } rows[] = {{without_version, "REFUSED (the greeting does not parse)"},
              {without_patterns, "REFUSED (the greeting does not parse)"}};
  EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
  for (const auto& row : rows) {
    watcher subject;
    subject.say(row.hello), serve_monitors();
    EXPECT_EQ(row.seen, subject.seen());
    EXPECT_TRUE(subject.has_ended);
  }
  watcher of_another_version;
  of_another_version.greet(2), serve_monitors();
  EXPECT_EQ("REFUSED (this kxcore speaks version 1)", of_another_version.seen());
}

TEST_F(told, nobody_is_watching_before_the_greeting_and_after_the_end) {
  EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
  auto subject = std::make_unique<watcher>();
  serve_monitors();
  EXPECT_FALSE(report.monitors.is_watched());
  auto another = watch();
  play("client REQ get client.get 5 > server = REQ 5");
  EXPECT_EQ("", subject->seen());
  another.reset();
  subject->greet(), serve_monitors();
  EXPECT_TRUE(report.monitors.is_watched());
  subject->seen(), subject.reset();
  play("client REQ get client.get 5 > server = REQ 5");
  serve_monitors();
  EXPECT_FALSE(report.monitors.is_watched());
}

TEST_F(told, eight_monitors_and_no_more_until_one_has_ended) {
  std::vector<std::unique_ptr<watcher>> all;
  for (std::size_t i = 0; i < traffic::max_monitors; ++i)
    all.push_back(watch());
  watcher ninth;
  serve_monitors(), ninth.take();
  EXPECT_TRUE(ninth.has_ended);
  all.pop_back(), serve_monitors();
  watch()->take();
  play("client REQ get client.get 5");
  EXPECT_EQ("SENT client>server get", all.front()->seen());
}

TEST_F(told, monitors_that_do_not_greet_give_way) {
  std::vector<std::unique_ptr<watcher>> silent;
  EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
  for (std::size_t i = 0; i < traffic::max_monitors; ++i)
    silent.push_back(std::make_unique<watcher>()), serve_monitors();
  watch();
  EXPECT_TRUE(report.monitors.is_watched());
}

TEST_F(told, monitors_that_say_too_much_are_let_go) {
  const auto subject = watch();
  subject->seen();
  KXmessage mark;
  mark << 1u;
  unsigned int answered = 0;
  for (unsigned int said = 0; said < 2 * traffic::max_packets && report.monitors.is_watched(); ++said) {
    subject->say(mark), serve_monitors();
    if (subject->take()) ++answered;
  }
  EXPECT_EQ(traffic::max_packets, 1 + answered) << "with the greeting";
  EXPECT_FALSE(report.monitors.is_watched());
}

TEST_F(told, signals_that_nobody_hears) {
  const auto subject = watch();
  subject->seen();
  play("server SIG tick tick 0");
  EXPECT_EQ("DROPPED server tick (nobody subscribes to the signal)", subject->seen());
}

TEST_F(told, monitors_are_of_the_user_of_the_core_or_of_a_group) {
  const auto permissions = [](const std::string& path) {
    struct stat file = {};
    EXPECT_EQ(0, stat(path.c_str(), &file));
    return std::to_string((file.st_mode & 0777) / 64) + std::to_string((file.st_mode & 070) / 8) +
           std::to_string(file.st_mode & 07) + " " + std::to_string(file.st_gid);
  };
  const std::string path = std::string(monitor_directory) + "/monitor";
  EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
  EXPECT_EQ("600 " + std::to_string(getegid()), permissions(path));
  EXPECT_EQ("711 " + std::to_string(getegid()), permissions(monitor_directory));
  EXPECT_EQ("", report.monitors.open(monitor_directory, 0));
  EXPECT_EQ("660 0", permissions(path));
  EXPECT_TRUE(watcher().m_is_connected);
}

TEST_F(told, nothing_to_monitors_in_a_directory_that_others_can_write_to) {
  const std::string refusal =
      std::string(monitor_directory) + " is not a directory that only kxcore can write to: remove it";
  EXPECT_EQ(0, symlink("/tmp", monitor_directory));
  EXPECT_EQ(refusal, report.monitors.open(monitor_directory, nobody));
  EXPECT_EQ(0, unlink(monitor_directory));
  EXPECT_EQ(0, mkdir(monitor_directory, 0700));
  EXPECT_EQ(0, chmod(monitor_directory, 0770));
  EXPECT_EQ(refusal, report.monitors.open(monitor_directory, nobody));
  EXPECT_EQ(0, chmod(monitor_directory, 0700));
  if (geteuid() == 0) {
    EXPECT_EQ(0, chown(monitor_directory, 1, 0));
    EXPECT_EQ(refusal, report.monitors.open(monitor_directory, nobody));
    EXPECT_EQ(0, chown(monitor_directory, 0, 0));
  }
  EXPECT_EQ("", report.monitors.open(monitor_directory, nobody));
  report.monitors.close();
  EXPECT_NE(0, access(monitor_directory, F_OK));
}

// --- in the whole core ---

namespace {

class watched_core : public whole_core {
 protected:
  void SetUp() override {
    whole_core::SetUp();
    subject.admit_monitors(getegid());
  }
};

}  // namespace

TEST_F(watched_core, knows_when_messages_were_sent_while_a_monitor_is_there) {
  if (std::string(KXCORE_COMMAND).find('|') != std::string::npos)
    GTEST_SKIP() << "an emulator hands on no times";
  auto seeing = std::make_unique<watcher>();
  seeing->greet(), subject.serve();
  seeing->seen();
  const std::uint64_t before = now_ns(CLOCK_REALTIME);
  play("client REQ get client.get 5 > server = REQ 5");
  ASSERT_TRUE(seeing->take());
  EXPECT_LE(before, seeing->last.sent_ns);
  EXPECT_GE(seeing->last.time_ns, seeing->last.sent_ns);
  play("other uses get");
  ASSERT_TRUE(seeing->take());
  EXPECT_EQ(RECORD_RECEIVED, seeing->last.event);
  EXPECT_EQ(record_is_management, seeing->last.flags);
  EXPECT_LE(before, seeing->last.sent_ns);
}

TEST_F(watched_core, tells_events_of_components_that_end) {
  watcher seeing;
  seeing.greet(), subject.serve();
  seeing.seen();
  play("client leaves");
  EXPECT_EQ(
      "RECEIVED client>kxcore, EVENT client (it unregistered), EVENT client get (the component is gone)",
      seeing.seen());
}

TEST_F(watched_core, makes_the_socket_for_monitors_again_and_removes_it_at_its_end) {
  EXPECT_EQ(0, std::system("rm -r /tmp/kxcore/.kxcore /tmp/kxcore/kxcore /tmp/kxcore/kxcore-d"));
  subject.serve();
  watcher seeing;
  seeing.greet(), subject.serve();
  EXPECT_EQ("COMPONENTS, SERVICES", seeing.seen());
  struct stat file = {};
  EXPECT_EQ(0, stat("/tmp/kxcore/.kxcore/monitor", &file));
  EXPECT_EQ(0660u, file.st_mode & 0777u);
}

// --- the bytes of a record ---

TEST(records, are_read_as_they_were_written) {
  const std::string long_text(300, 'x');
  record written = {RECORD_DROPPED, 0x01020304, 5,         0x0102030405060708, 7, 8, 9, 10,
                    "from",         "",         "service", long_text};
  unsigned char bytes[record_max_header + 4] = {}, header[record_max_header];
  const std::size_t size = write_record_header(written, header);
  std::copy_n(header, size, bytes);
  std::copy_n("body", 4, bytes + size);
  EXPECT_EQ(" 01 05 01 37 01 02 03 04 00 00 00 05 01 02 03 04 05 06 07 08",
            hex(std::vector<unsigned char>(bytes, bytes + 20)));
  record read{};
  std::string_view body;
  ASSERT_TRUE(read_record(bytes, size + 4, read, body));
  EXPECT_EQ("body", body);
  EXPECT_EQ("from", read.sender);
  EXPECT_EQ("service", read.service);
  EXPECT_EQ(long_text.substr(0, 255), read.reason);
  EXPECT_EQ(0x0102030405060708u, read.time_ns);
  EXPECT_EQ(10, read.flags);
  EXPECT_EQ(9, read.pid);
}

TEST(records, are_not_read_from_bytes_that_are_none) {
  unsigned char whole[record_max_header];
  const std::size_t size = write_record_header({RECORD_SENT, 1, 2, 3, 4, 5, 6, 7, "a", "b", "c", "d"}, whole);
  record read{};
  std::string_view body;
  for (std::size_t length = 0; length < size; ++length)
    EXPECT_FALSE(read_record(std::vector<unsigned char>(whole, whole + length).data(), length, read, body))
        << length;
  const struct {
    std::size_t at;
    unsigned char byte;
  } rows[] = {{0, 2},
              {0, 0},
              {2, 1},
              {3, static_cast<unsigned char>(size - 1)},
              {3, static_cast<unsigned char>(size + 1)}};
  for (const auto& row : rows) {
    std::vector<unsigned char> broken(whole, whole + size);
    broken[row.at] = row.byte;
    EXPECT_FALSE(read_record(broken.data(), size, read, body)) << row.at << "=" << int(row.byte);
  }
  whole[3] = static_cast<unsigned char>(size + 1);
  EXPECT_TRUE(read_record(whole, size + 1, read, body)) << "of a later version, with a field more";
}
