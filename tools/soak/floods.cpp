#include "floods.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "board.h"
#include "datagram.h"
#include "exchange.h"
#include "parts.h"
#include "socket_address.h"

namespace {

class filling_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void fill() {
    if (m_refused && ++m_pause % 64 != 0) return;
    KXmessage message;
    message << 0ull;
    message << std::string(largest_text, 'x');
    proxy_send(message);
  }

  void process_message(KXmessage& answer) override {
    if (answer.m_header->msg_type != MSG_ERR || m_refused) return;
    m_refused = true;
    ++board->queues_full;
  }

 private:
  bool m_refused = false;
  int m_pause = 0;
};

// Opens the siids, for headers that are not written by the library.
class flooding_proxy : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::m_service_siid, KXproxy::m_siid;
};

// Sends by itself what the library would not, and waits a thousandth of its time when there is no room.
class flooding_component : public KXclientComponent {
 public:
  flooding_component(const std::string& name, unsigned int seed)
      : KXclientComponent(name.c_str(), nullptr), m_random(seed) {}

  void send_in_order(const flooding_proxy& proxy, msg_type_e type) {
    const KXmessage message = make_message(proxy.m_service_siid, proxy.m_siid, type);
    send(message, static_cast<std::size_t>(message.datagram_size()), false);
  }

  void send_anything(bool mgmt) {
    const std::uint32_t to = m_random() % 500;
    const std::uint32_t from = m_random() % 500;
    const KXmessage message = make_message(to, from, MSG_REQ);
    send(message, m_random() % (static_cast<std::size_t>(message.datagram_size()) + 1), mgmt);
  }

 private:
  KXmessage make_message(std::uint32_t to, std::uint32_t from, msg_type_e type) {
    KXmessage message;
    message.m_header->dst_siid = htonl(to);
    message.m_header->src_siid = htonl(from);
    message.m_header->msg_type = type;
    message.m_header->cmd = static_cast<std::uint8_t>(m_random());
    if (m_random() % 2 == 0) message << std::string(largest_text, 'x');
    return message;
  }

  void send(const KXmessage& message, std::size_t size, bool mgmt) {
    peer_info_t core;
    std::string path = mgmt ? m_kxcore_mgmt_socket_name : m_kxcore_data_socket_name;
    core.path(path);
    while (sendto(mgmt ? m_mgmt_fd : m_data_fd, message.m_header, size, MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&core.addr), core.addrlen) < 0)
      usleep(1000);
    ++board->flooded;
  }

  random_source m_random;
};

}  // namespace

void fill_queues(int stopped) {
  KXclientComponent component("filler", nullptr);
  component.register_component();
  std::vector<std::unique_ptr<filling_proxy>> proxies;
  for (int i = 0; i < stopped; ++i) {
    proxies.push_back(std::make_unique<filling_proxy>(&component));
    subscribe(*proxies.back(), numbered("stopped", i), KXconnection::ASYNC);
    component.add_msec_timer(
        1, proxies.back().get(),
        [](void* proxy, int) {
          static_cast<filling_proxy*>(proxy)->fill();
          return 0;
        },
        i);
  }
  component.wait(true);
}

void flood(const std::string& name, unsigned int seed) {
  flooding_component component(name, seed);
  component.register_component();
  flooding_proxy to_server(&component), to_stopped(&component);
  subscribe(to_server, numbered("server", flooded_server), KXconnection::ASYNC);
  subscribe(to_stopped, numbered("stopped", 0), KXconnection::ASYNC);
  await_begin();
  for (;;) {
    component.send_in_order(to_server, MSG_SIG);
    component.send_in_order(to_stopped, MSG_REQ);
    component.send_anything(false);
    component.send_anything(true);
  }
}

[[noreturn]] void flood_as_strangers(int sockets) {
  constexpr int large = 8 * 1024 * 1024;
  std::vector<int> senders;
  for (int i = 0; i < sockets; ++i) {
    const sockaddr_un own = socket_address("/tmp/kxcore/" + numbered("stranger", i));
    senders.push_back(socket(AF_UNIX, SOCK_DGRAM, 0));
    bind(senders.back(), reinterpret_cast<const sockaddr*>(&own), sizeof own);
    if (i % 8 == 0 && setsockopt(senders.back(), SOL_SOCKET, SO_SNDBUFFORCE, &large, sizeof large) != 0)
      setsockopt(senders.back(), SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
  }
  KXmessage message;
  message.m_header->msg_type = MSG_REQ;
  await_begin();
  for (;;) {
    for (const char* const path : {"/tmp/kxcore/kxcore", "/tmp/kxcore/kxcore-d"}) {
      const sockaddr_un core = socket_address(path);
      for (const int sender : senders) {
        if (sendto(sender, message.m_header, header_size, MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr*>(&core), sizeof core) > 0)
          ++board->flooded;
      }
    }
  }
}
