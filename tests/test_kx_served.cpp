// The classes that kxgen makes of a description, and what they build on.
#include "core_process.h"
#include "kx_test.h"
#include "thermostat_described.h"
#include "values.h"

namespace {

class served_values final : public test::values::server {
 public:
  explicit served_values(kx::port& app) : server(app) {}

 private:
  void nothing(kx::typed_request<>& asked) override { asked.reply(); }
  void sum(kx::typed_request<std::int64_t>& asked, std::uint8_t a, std::int8_t b, bool c, std::int16_t d,
           std::uint16_t e, std::int32_t f, std::uint32_t g, std::int64_t h, std::uint64_t i) override {
    asked.reply(a + b + c + d + e + f + g + h + static_cast<std::int64_t>(i));
  }
  void turn(kx::typed_request<test::values::turn_answer>& asked, const std::string& text,
            const buffer_t& bytes) override {
    turned.emit(text, 1);
    asked.reply({bytes, text});
  }
};

class values_on_a_bus : public testing::Test {
 protected:
  values_on_a_bus() {
    server.start();
    user.start();
  }

  kx::testing::bus bus;
  kx::testing::app server{bus, "server"};
  kx::testing::app user{bus, "user"};
  served_values served{server};
  test::values::client client{user};
};

TEST_F(values_on_a_bus, are_nothing) { EXPECT_EQ("=", told(client.nothing())); }

TEST_F(values_on_a_bus, are_all_types_of_numbers) {
  EXPECT_EQ(123456789, *client.sum(9, 80, true, 699, 6000, 50000, 400000, 3000000, 120000000));
}

TEST_F(values_on_a_bus, are_several_with_their_names) {
  EXPECT_EQ("text", client.turn("text", buffer_t{})->text);
}

TEST_F(values_on_a_bus, come_later) {
  std::string text;
  client.async_turn("text", buffer_t{}).then([&](const kx::result<test::values::turn_answer>& answer) {
    text = answer->text;
  });
  bus.settle();
  EXPECT_EQ("text", text);
}

TEST_F(values_on_a_bus, are_told_to_listeners) {
  std::string heard;
  const test::values::turned_listener listener(
      user, [&](const std::string& text, std::uint64_t times) { heard = text + std::to_string(times); });
  client.async_turn("text", buffer_t{}).then([](const auto&) {});
  bus.settle();
  EXPECT_EQ("text1", heard);
}

TEST_F(values_on_a_bus, are_refused_when_they_do_not_fit) {
  EXPECT_EQ("refused: the arguments do not fit", told(client.call<>(255, "text")).substr(0, 33));
}

TEST(a_request_of_a_described_service, is_answered_by_who_keeps_it) {
  kx::testing::bus bus;
  kx::testing::app server(bus, "server");
  kx::testing::app user(bus, "user");
  const described_thermostat served(server);
  thermostat::client client(user);
  server.start();
  user.start();
  EXPECT_EQ(400, client.self_test() ? user.now() : -1);
}

// What the core tells of a service that a program on the real bus offers.
std::string comment_of(const char* service) {
  const core_process core;
  const child_process server(words_of(DESCRIBED_COMMAND));
  kx::app app("tester");
  kx::client offered(app, service);
  kx::client directory(app, "kxcore.directory");
  std::string comment;
  offered.on_available([&] {
    constexpr int description = 4;
    const auto answer = directory.call<std::string, std::string>(description, std::string(service));
    comment = std::get<0>(*answer);
    app.quit();
  });
  app.run();
  return comment;
}

TEST(a_described_service, tells_its_description) {
  EXPECT_EQ(
      R"(<interface><method cmd="1" name="get"><arg direction="out" name="degrees" type="i" unit="°C"/></method>)"
      R"(<method cmd="2" name="set"><arg direction="in" name="wanted" type="i" unit="°C"/>)"
      R"(<arg direction="out" name="degrees" type="i" unit="°C"/></method>)"
      R"(<method cmd="3" name="self_test"><arg direction="out" name="faults" type="i"/></method></interface>)",
      comment_of("thermostat"));
}

}  // namespace
