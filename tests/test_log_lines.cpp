// What a firmware engineer reads in the log of a component's life, line by line: tests/log_lines.txt.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "KXinterface.h"
#include "probe.h"

namespace {

// Hides what differs from run to run: line numbers, descriptors and addresses, each behind its mark.
std::string masked(std::string text) {
  for (const std::string mark : {":", "]=", "connection=", ") to "}) {
    const std::size_t begin = text.find(mark) + mark.size();
    if (begin < mark.size()) continue;
    const std::size_t end = text.find_first_not_of("0123456789abcdefx", begin);
    text.replace(begin, std::min(end, text.size()) - begin, "#");
  }
  if (text.back() == '\n') text.replace(text.size() - 1, 1, "\\n");
  return text;
}

int once(void*, int) { return -1; }

// Does everything once, well and badly.
struct life : KXinterface {
  explicit life(client_probe& component) : audio(component) {}

  void startup_phase0(KXcomponent*) override {
    KXmessage message;
    get.proxy_send(message);
    serve.register_synchronous("get");
    tick.register_signal("tick");
    tick.register_signal("tick");
    EXPECT_THROW(twin.register_asynchronous("twin"), KXerror::error_e);
    get.subscribe_synchronous("get");
    EXPECT_THROW(later.subscribe_asynchronous("absent", nullptr), KXerror::error_e);
    later.subscribe_signal("tick");
  }
  void startup_phase1(KXcomponent*) override {
    core->data.send(audio.m_data_socket_name, hex("1 2 3"));
    core->data.send(audio.m_data_socket_name, make_message(3, 9, MSG_SIG, 5, 77));
    KXmessage request;
    request << 7;
    EXPECT_EQ(0, get.proxy_send(request)) << "nothing answers";
    seam::fail(seam::SENDTO, EAGAIN, 1);
    tick.connection_send(request);
    audio.send_message_to(audio.m_data_fd, "/tmp/kxcore/nobody", request);
    audio.send_message_to(audio.m_data_fd, std::string(108, 'x').c_str(), request);
    audio.send_message_to(0, "", request);
    peer_info_t peer;
    audio.rec_message(-1, request, true, peer);
    peer.path(audio.m_data_socket_name);
  }
  void startup_phase2(KXcomponent*) override {
    audio.add_msec_timer(100, this, once, 1);
    audio.add_timer(2, this, once, 2);
    audio.has_timer(this, once, 2);
    audio.del_timer(this, once, 2);
    audio.add_socket_descriptor(-1, this, once);
    audio.add_socket_descriptor(0, this, once);
    audio.remove_socket_descriptor(0);
    audio.add_close_cb([] { return 0; });
    seam::fail(seam::CLOCK_GETTIME, EINVAL);
    get_currentTime();
    later.disconnect(true);
    later.disconnect(true);
    KXmessage refused;
    later.proxy_send(refused);
    audio.remove_connection(&twin);
    audio.set_aside(make_message(1, 1, MSG_SIG, 200, 5));
    buffer_t buffer;
    buffer.incr_size(3000);
    buffer.incr_pos(3000);
    buffer_t(buffer.data, 3000) << std::string(2046, 'x');
  }

  client_probe& audio;
  std::optional<fake_core> core;
  stub_probe serve{&audio}, tick{&audio}, twin{&audio};
  proxy_probe get{&audio}, later{&audio};
};

}  // namespace

class log_lines : public seam_test {};

TEST_F(log_lines, tell_the_life_of_a_component) {
  seam::fake_clock(100);
  client_probe audio("audio", nullptr);
  life interface(audio);
  const auto siids = [](std::initializer_list<int> values) {
    return [values = std::vector<int>(values)](KXmessage& m) {
      for (const int value : values)
        m << value;
    };
  };
  seam::before(seam::SLEEP, [&] {
    if (interface.core || seam::count(seam::SLEEP) < 2) return;
    fake_core& core = interface.core.emplace();
    core.reply(MSG_RSP, [](KXmessage& m) { m << fake_core::data_path; });
    for (const auto& grant : {siids({3}), siids({4}), siids({3}), siids({6, 3, 1000, 2000})})
      core.reply(MSG_RSP, grant);
    core.reply(MSG_ERR);
    core.reply(MSG_RSP, siids({7, 4, 2000, 3000}));
  });
  audio.add_interface(&interface);
  seam::when_idle([&] {
    if (audio.m_running && audio.m_timers.empty()) audio.sendKillMsgToSelf();
  });
  audio.start(KXcomponent::CMP_START_AND_LOOP);
  audio.stop();
  std::string written;
  for (const seam::log_line& line : seam::lines())
    written += masked(line.text) + "\n";
  std::ostringstream expected;
  expected << std::ifstream(LOG_LINES).rdbuf();
  EXPECT_EQ(expected.str(), written);
  interface.core.reset();
}
