// A client component that is fed on both sockets while its exchanges are under way. The input chooses what
// the application does, also from inside its handlers, what arrives, and which system calls fail. Time is the
// seam's.
#include <arpa/inet.h>

#include <memory>
#include <set>

#include "feed.h"
#include "probe.h"

namespace {

constexpr std::size_t connections = 3;  // of each class

class world {
 public:
  explicit world(feed& input) : m_input(input) {
    seam::fake_clock(100);
    seam::before(seam::SELECT, [this] { before_select(); });
    seam::before(seam::POLL, [this] { before_poll(); });
    for (std::size_t i = 0; i < connections; ++i) {
      renew(m_stubs[i]);
      renew(m_proxies[i]);
    }
  }

  void live() {
    while (!m_input.done() && m_input.below(8) > 0)
      act();
    m_component.wait(true);
    for (const auto& [siid, bound] : m_component.m_siid_map)
      REQUIRE(siid != no_siid && !bound->empty());
#ifndef __SANITIZE_THREAD__  // which reports the attempt to release what is free
    REQUIRE(pthread_mutex_unlock(&m_component.m_mutex) == EPERM);
#endif
    REQUIRE(m_component.m_data_fd == -1 && m_component.m_mgmt_fd == -1);
  }

 private:
  // What an application may do, at the top or in a handler.
  void act() {
    stub_probe& stub = *m_stubs[m_input.below(connections)];
    proxy_probe& proxy = *m_proxies[m_input.below(connections)];
    const auto kind = static_cast<KXconnection::interface_type_e>(m_input.below(3));
    const std::function<void()> acts[] = {
        [&] { stub.register_service("service", kind); },
        [&] {
          unbind(proxy);  // subscribed again, it would keep what it was bound to
          proxy.subscribe_service("service", kind, nullptr);
        },
        [&] { stub.disconnect(m_input.below(2) == 0); },
        [&] { proxy.disconnect(m_input.below(2) == 0); },
        [&] { renew(m_stubs[m_input.below(connections)]); },
        [&] { renew(m_proxies[m_input.below(connections)]); },
        [&] { m_component.add_msec_timer(m_input.value<int>(), this, on_timer, 7); },
        [&] { m_component.del_timer(this, on_timer, 7); },
        [&] { fail(); },
        [&] {
          KXmessage message = near_valid();
          stub.connection_send(message);
        },
        [&] { call(proxy); }};
    try {
      acts[m_input.below(std::size(acts))]();
    } catch (KXerror::error_e) {
      // The core refuses, or grants a siid that is taken.
    }
  }

  void call(proxy_probe& proxy) {
    KXmessage message = near_valid();
    proxy.proxy_send(message);
    m_awaited = ntohl(message.m_header->msg_id);
  }

  static int on_timer(void* context, int) {
    auto& self = *static_cast<world*>(context);
    self.act();
    return self.m_input.done() ? -1 : static_cast<int>(self.m_input.below(2)) - 1;
  }

  void fail() {
    static constexpr seam::call_e calls[] = {seam::SENDTO, seam::RECVFROM, seam::SELECT, seam::CLOCK_GETTIME};
    static constexpr int errors[] = {EINTR, EAGAIN, ENOMEM, ECONNREFUSED};
    seam::fail(calls[m_input.below(4)], errors[m_input.below(4)], static_cast<int>(m_input.below(5)),
               static_cast<int>(m_input.below(4)));
  }

  // The core reads what there is. Some datagrams come before an exchange has its reply, which always comes.
  void before_select() {
    for (KXmessage request; m_core.mgmt.receive(request);)
      if (request.m_header->msg_type == MSG_REQ) m_unanswered.push_back(request);
    for (KXmessage sent; m_core.data.receive(sent);)
      m_awaited = ntohl(sent.m_header->msg_id);
    for (std::size_t extra = m_input.below(3); extra > 0; --extra)
      inject();
    while (!m_unanswered.empty() && answer(m_unanswered.front()))
      m_unanswered.pop_front();
  }

  bool answer(KXmessage reply) {
    reply.size = 0;
    reply.m_header->msg_type = m_input.below(4) == 3 ? MSG_ERR : MSG_RSP;
    for (std::size_t i = 0; i < 4; ++i)
      reply << static_cast<int>(m_input.below(4) == 3 ? m_input.value<int>() : ++m_siid);
    return m_core.mgmt.send(m_component.m_mgmt_socket_name, reply);
  }

  // Something comes in each cycle, until the component is told to end.
  void before_poll() {
    if (m_input.done()) {
      m_core.mgmt.send(m_component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_KILL_COMPONENT, 0));
    } else if (m_component.m_timers.empty() || m_input.below(4) > 0) {
      inject();
    }
  }

  void inject() {
    const bool mgmt = m_input.below(2) == 0;
    const raw_socket& from = mgmt ? m_core.mgmt : m_core.data;
    const std::string& to = mgmt ? m_component.m_mgmt_socket_name : m_component.m_data_socket_name;
    if (m_input.below(4) == 0) {
      from.send(to, m_input.bytes(m_input.value<std::uint16_t>() % 2100));
    } else {
      from.send(to, near_valid());
    }
  }

  KXmessage near_valid() {
    KXmessage message =
        make_message(static_cast<unsigned int>(m_input.below(32)), m_input.value<std::uint8_t>(),
                     static_cast<msg_type_e>(m_input.below(6)), m_input.value<std::uint8_t>(),
                     m_input.below(2) == 0 ? m_awaited : m_input.value<std::uint32_t>());
    const std::vector<unsigned char> payload = m_input.bytes(m_input.value<std::uint8_t>());
    std::copy(payload.begin(), payload.end(), message.data + message.offset);
    message.incr_size(static_cast<int>(payload.size()));
    return message;
  }

  void unbind(KXconnection& connection) {
    connection.disconnect(true);
    const auto& listed = m_component.m_connections;
    while (std::find(listed.begin(), listed.end(), &connection) != listed.end())
      m_component.remove_connection(&connection);
  }

  // Replaces a connection that is not handling a message.
  template <typename Probe>
  void renew(std::unique_ptr<Probe>& connection) {
    if (connection != nullptr && m_serving.count(connection.get()) > 0) return;
    if (connection != nullptr) unbind(*connection);
    connection = std::make_unique<Probe>(&m_component);
    connection->on_message = [this, self = connection.get()](KXmessage& message) {
      const bool entered = m_serving.insert(self).second;
      int value = 0;
      message >> value;
      if (!m_input.done()) act();
      if (entered) m_serving.erase(self);
    };
  }

  feed& m_input;
  fake_core m_core;
  int m_siid = 1;
  unsigned int m_awaited = 0;
  std::deque<KXmessage> m_unanswered;
  std::set<const KXconnection*> m_serving;
  std::unique_ptr<stub_probe> m_stubs[connections];
  std::unique_ptr<proxy_probe> m_proxies[connections];
  client_probe m_component{"fuzzed", nullptr};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  feed input(bytes, size);
  seam::reset();
  seam::trace_level(input.below(8) == 0 ? 9 : 3);
  world(input).live();
  return 0;
}
