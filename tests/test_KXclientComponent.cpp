#include "probe.h"

using client_component = seam_test;

// For three seconds the core is away; then each request cannot be sent, then it is refused, then granted.
TEST_F(client_component, sends_each_management_message_byte_for_byte) {
  fake_core core;
  client_probe component("c");
  struct : stub_probe {
    using stub_probe::stub_probe;
    const char* get_xml_comment() const override { return "s"; }
  } temp(&component);
  stub_probe get(&component);
  proxy_probe getter(&component), watcher(&component);
  KXmessage kill = make_message(7, 9, MSG_ERR, 11, ~1u), odd = make_message(7, 9, MSG_ERR, 12, ~2u);
  const std::string c = "07 02 00 63 00 ", s = "07 02 00 73 00 ", none = "07 05 00 6E 6F 6E 65 00 ";
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { component.register_component(); },
       "01 01 " + c + "07 10 00 2F 74 6D 70 2F 6B 78 63 6F 72 65 2F 63 2D 64 00"},
      {[&] { get.register_asynchronous("s"); }, "01 03 " + c + s + none + none + "06 00 00 00 01"},
      {[&] { temp.register_signal("s"); }, "01 04 " + c + s + s + none + "06 00 00 00 02"},
      {[&] { getter.subscribe_synchronous("s"); }, "01 07 " + s},
      {[&] { watcher.subscribe_signal("s"); }, "01 08 " + s},
      {[&] { component.interconnect_service(nullptr, kill); }, "01 0B"},
      {[&] { component.interconnect_service(nullptr, odd); }, "01 0C"},
      {[&] { get.disconnect(true); }, "04 05 06 00 00 00 11"},
      {[&] { temp.disconnect(true); }, "04 06 06 00 00 00 12"},
      {[&] { getter.disconnect(true); }, "04 09 06 00 00 00 13"},
      {[&] { watcher.disconnect(true); }, "04 0A 06 00 00 00 14"},
      {[&] { component.unregister_component(); }, "04 02 " + c}};
  seam::fake_clock(100);
  seam::fail(seam::ACCESS, ENOENT, 3);
  watcher.m_interface_type = KXconnection::SGNL;
  watcher.disconnect(true);  // without a siid it has nothing to withdraw
  int siid = 16;
  std::set<std::vector<unsigned char>> ids = {hex("00 00 00 00"), hex("33 33 33 33")};
  for (const auto& [act, bytes] : cases) {
    if (bytes[1] == '1') {
      seam::fail(seam::SENDTO, EAGAIN, 3);
      act();
      core.reply(MSG_ERR);
      EXPECT_THROW(act(), KXerror::error_e) << bytes;
      core.reply(MSG_RSP, [&](KXmessage& reply) { reply << siid++; });
    }
    act();
    core.serve();
    std::vector<unsigned char> sent = bytes_of(core.received.back());
    ids.emplace(sent.begin() + 10, sent.begin() + 14);
    sent.erase(sent.begin() + 10, sent.begin() + 14);
    EXPECT_EQ(hex("00 00 00 01 00 00 00 01 " + bytes), sent) << bytes;
  }
  EXPECT_EQ(2 + cases.size(), ids.size()) << "an id is reserved or was given twice";
  EXPECT_TRUE(ids.count(hex("11 11 11 11")) == 1 && ids.count(hex("22 22 22 22")) == 1);
  EXPECT_EQ(no_siid, getter.m_service_siid & getter.m_mid_first & getter.m_mid_end) << "missing in the reply";
  EXPECT_TRUE(seam::logged("to start [1 sec] [/tmp/kxcore/kxcore]...\n") && seam::logged("start [3 sec]"));
  EXPECT_TRUE(seam::logged("reveived error message, aborting...") && seam::logged("register component [c]"));
  EXPECT_EQ("virtual void KXclientComponent::register_component()", seam::failed_assertions().at(0).function);
  EXPECT_EQ("m_kxcore_data_socket_name != \"\"", seam::failed_assertions().at(1).expression);
}

// What else arrives during an exchange, and later one in two of the random datagrams of every length, is for
// the siid 9: all its connections are handed each of them in turn, as one object.
TEST_F(client_component, hands_on_what_was_set_aside_and_goes_on_whatever_comes) {
  fake_core core;
  client_probe component("c");
  core.mgmt.send(component.m_mgmt_socket_name, hex("00"));
  for (const std::string end : {"04 0B 00 00 0B 00", "01 01 00 00 0B 07"})
    core.mgmt.send(component.m_mgmt_socket_name, hex("00 00 00 09 00 00 00 02 " + end));
  proxy_probe watchers[3] = {proxy_probe(&component), proxy_probe(&component), proxy_probe(&component)};
  std::vector<int> handled;
  for (const int i : {2, 0, 1}) {
    core.reply(MSG_RSP, [](KXmessage& reply) { reply << 9; });
    EXPECT_EQ(1, watchers[i].subscribe_signal("s"));
    watchers[i].on_message = [&handled, i](KXmessage& message) {
      message << i;
      handled.push_back(100 * message.m_header->cmd + message.size + i);
    };
  }
  EXPECT_EQ(2, seam::times_logged("(interconnect_service) - Message added to waiting queue: id=0xb0"));
  core.mgmt.send(component.m_mgmt_socket_name, hex(""));
  EXPECT_EQ(0, watchers[0].subscribe_signal("s")) << "an empty datagram came";
  std::srand(1);
  std::vector<unsigned char> raw;
  seam::before(seam::POLL, [&] {
    std::generate(raw.begin(), raw.end(), std::rand);
    // A KILL-COMPONENT counts in the last one, not in those without a whole header.
    if (raw.size() > 9) raw[9] = raw.size() % buffer_t::capacity < 14 ? CMD_KILL_COMPONENT : raw[9] | 0x80;
    core.mgmt.send(component.m_mgmt_socket_name, raw);
    if (raw.size() > 3 && raw.size() % 2 == 0) std::copy_n("\0\0\0\x09", 4, raw.begin());
    core.data.send(component.m_data_socket_name, raw);
    raw.push_back(0);
  });
  component.wait(true);
  ASSERT_EQ(6u + 3 * (buffer_t::capacity / 2 - 6), handled.size());
  EXPECT_EQ((std::vector{1105, 1111, 1117, 105, 111, 117}), std::vector(&handled[0], &handled[6]));
}
