// A client component that is fed on both sockets while its exchanges are under way. The input chooses what
// the application does, also from inside its handlers, what arrives, and which system calls fail. Time and
// the sockets are the seam's.
#include <arpa/inet.h>

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "feed.h"
#include "memory_sockets.h"
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
    m_component.remove_socket_descriptor(m_own.fd());
    REQUIRE(m_component.m_nfds == 2);
    for (const auto& [siid, bound] : m_component.m_siid_map) {
      REQUIRE(siid != no_siid && !bound->empty());
      for (const KXconnection* connection : *bound)
        REQUIRE(lives(connection));
    }
    for (const KXconnection* connection : m_component.m_connections)
      REQUIRE(lives(connection));
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
    const std::function<void()> actions[] = {
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
        [&] {
          KXmessage message = near_valid();
          proxy.proxy_send(message);
          m_awaited = ntohl(message.m_header->msg_id);
        },
        [&] {
          m_component.remove_socket_descriptor(m_own.fd());
          m_component.add_socket_descriptor(m_own.fd(), this, on_readable);
        },
        [&] { m_component.remove_socket_descriptor(m_own.fd()); },
        [&] {
          siginfo_t info = {};
          info.si_pid = m_input.value<pid_t>();
          sig_handler(SIGTERM, &info, nullptr);
        },
        [&] {
          if (m_input.below(4) == 3) m_component.stop();
        }};
    try {
      actions[m_input.below(std::size(actions))]();
    } catch (KXerror::error_e) {
      // The core refuses, or grants a siid that is taken.
    }
  }

  static int on_timer(void* context, int) {
    auto& self = *static_cast<world*>(context);
    self.act();
    return self.m_input.done() ? -1 : static_cast<int>(self.m_input.below(2)) - 1;
  }

  // The application's own descriptor.
  static int on_readable(void* context, int) {
    auto& self = *static_cast<world*>(context);
    self.m_own.receive();
    self.act();
    return static_cast<int>(self.m_input.below(2)) - 1;
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
      m_unanswered.erase(m_unanswered.begin());
  }

  bool answer(KXmessage& reply) {
    reply.size = 0;
    reply.m_header->msg_type = m_input.below(4) == 3 ? MSG_ERR : MSG_RSP;
    for (std::size_t i = 0; i < 4; ++i)
      reply << grant();
    return m_core.mgmt.send(m_component.m_mgmt_socket_name, reply);
  }

  // A new siid, one that may be taken, or any number.
  int grant() {
    const std::size_t kind = m_input.below(4);
    if (kind == 3) return m_input.value<int>();
    return kind == 2 ? static_cast<int>(m_input.below(8)) : ++m_siid;
  }

  // Something comes in each cycle, until the component is told to end.
  void before_poll() {
    if (m_input.done()) {
      m_core.mgmt.send(m_component.m_mgmt_socket_name, make_message(1, 1, MSG_SIG, CMD_KILL_COMPONENT, 0));
    } else if (m_component.m_timers.empty() || m_input.below(4) > 0) {
      inject();
    }
  }

  // Every source but that of management traffic tells the order of sending, and the socket.
  void inject() {
    const bool mgmt = m_input.below(2) == 0;
    const raw_socket& from = mgmt ? m_core.mgmt : m_core.data;
    const std::string& to = mgmt ? m_component.m_mgmt_socket_name : m_component.m_data_socket_name;
    if (m_input.below(8) == 7) from.send(m_own.path(), "", 0);
    m_sent += 2;
    const std::uint32_t source = htonl(m_sent + (mgmt ? 1 : 0));
    if (m_input.below(4) == 0) {
      std::vector<unsigned char> bytes(m_input.value<std::uint16_t>() % 2100);
      m_input.read(bytes.data(), std::min(bytes.size(), std::size_t{32}));
      if (bytes.size() >= 8) std::memcpy(bytes.data() + 4, &source, sizeof source);
      from.send(to, bytes);
    } else {
      KXmessage message = near_valid();
      if (message.m_header->src_siid != htonl(management_siid)) message.m_header->src_siid = source;
      from.send(to, message);
    }
  }

  KXmessage near_valid() {
    KXmessage message =
        make_message(static_cast<unsigned int>(m_input.below(32)), m_input.value<std::uint8_t>(),
                     static_cast<msg_type_e>(m_input.below(6)), m_input.value<std::uint8_t>(),
                     m_input.below(2) == 0 ? m_awaited : m_input.value<std::uint32_t>());
    const std::size_t size = m_input.read(message.data + message.offset, m_input.value<std::uint8_t>());
    message.incr_size(static_cast<int>(size));
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
    if (serves(connection.get())) return;
    if (connection != nullptr) unbind(*connection);
    connection = std::make_unique<Probe>(&m_component);
    connection->on_message = [this, self = connection.get()](KXmessage& message) {
      check_delivery(self, message);
      m_serving.push_back(self);
      int value = 0;
      message >> value;
      if (!m_input.done()) act();
      m_serving.pop_back();
    };
  }

  // A message comes to those that are bound to its siid, once to each, and in the order in which its socket
  // took it in, whether it was set aside or not.
  void check_delivery(const KXconnection* to, const KXmessage& message) {
    const auto bound = m_component.m_siid_map.find(ntohl(message.m_header->dst_siid));
    REQUIRE(bound != m_component.m_siid_map.end());
    REQUIRE(std::count(bound->second->begin(), bound->second->end(), to) == 1);
    const unsigned int source = ntohl(message.m_header->src_siid);
    if (source == management_siid) return;
    const auto delivery = std::make_pair(source, to);
    REQUIRE(m_delivered[source % 2] < delivery);
    m_delivered[source % 2] = delivery;
  }

  bool lives(const KXconnection* connection) const {
    const auto is_it = [connection](const auto& each) { return each.get() == connection; };
    return std::any_of(std::begin(m_stubs), std::end(m_stubs), is_it) ||
           std::any_of(std::begin(m_proxies), std::end(m_proxies), is_it);
  }

  bool serves(const KXconnection* connection) const {
    return std::find(m_serving.begin(), m_serving.end(), connection) != m_serving.end();
  }

  feed& m_input;
  fake_core m_core;
  raw_socket m_own{"/tmp/kxcore/own"};
  int m_siid = 1;
  unsigned int m_awaited = 0;
  std::vector<KXmessage> m_unanswered;
  std::vector<const KXconnection*> m_serving;
  unsigned int m_sent = 2;
  std::pair<unsigned int, const KXconnection*> m_delivered[2];  // the last one, of each socket
  std::unique_ptr<stub_probe> m_stubs[connections];
  std::unique_ptr<proxy_probe> m_proxies[connections];
  client_probe m_component{"fuzzed", nullptr};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  feed input(bytes, size);
  seam::reset();
  seam::sockets_in_memory();
  // Lines take time. The fuzzer cannot tell which inputs write them, and does not come to favour those.
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  seam::trace_level(std::hash<std::string_view>()(text) % 64 == 0 ? 9 : 0);
  world(input).live();
  REQUIRE(memory_sockets::none_left());
  seam::disarm();
  return 0;
}
