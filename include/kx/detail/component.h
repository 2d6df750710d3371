// The classes of the library behind the port of an application.
#ifndef KX_DETAIL_COMPONENT_H
#define KX_DETAIL_COMPONENT_H

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "KXstub.h"
#include "kx/port.h"
#include "peer_info.h"

namespace kx::detail {

// Why an application does not start; thrown through KXcomponent::start.
struct start_failure {
  std::string reason;
};

// Whether a process receives at this socket, which a component of that name would take away from it.
inline bool is_taken(const std::string& path) {
  peer_info_t there;
  std::string copy = path;
  if (there.path(copy) != 0) return false;
  const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool answers = connect(probe, reinterpret_cast<const sockaddr*>(&there.addr), sizeof there.addr) == 0;
  close(probe);
  return answers;
}

class component : public KXclientComponent {
 public:
  component(const char* name, const ExtraCfg& settings) : KXclientComponent(name, &settings) {}

  const std::string& core_socket() const { return m_kxcore_mgmt_socket_name; }
  std::string refusal() const { return last_refusal().empty() ? "the core refuses it" : last_refusal(); }
  bool is_stopped() const { return __atomic_load_n(&m_data_fd, __ATOMIC_RELAXED) < 0; }
  bool has(unsigned int siid) const { return m_siid_map.count(siid) != 0; }
  bool has_sent() const { return m_has_sent; }

  // Ends the loop after what it does now, or when it has begun: see loop_follows. Not by a message to itself,
  // which an exchange with the core might take.
  void end_loop() {
    m_ends = true;
    __atomic_store_n(&m_running, false, __ATOMIC_RELAXED);
  }

  // The start is over.
  void loop_follows() {
    if (m_ends) add_msec_timer(0, this, static_end, 0);
  }

  // Goes on without the bus when the core cannot be reached, and this must not.
  void register_component() override {
    KXclientComponent::register_component();
    m_is_registered = !m_kxcore_data_socket_name.empty();
    if (!m_is_registered) throw start_failure{"kxcore does not answer at " + m_kxcore_mgmt_socket_name};
  }

  void unregister_component() override {
    if (m_is_registered) KXclientComponent::unregister_component();
  }

  // An exchange sets aside what arrives meanwhile, and the loop would drop an order to end.
  bool interconnect_service(KXconnection* connection, KXmessage& message) override {
    const end_heeded heeded{*this};
    return KXclientComponent::interconnect_service(connection, message);
  }

  // A core that takes requests and does not answer would be waited for without limit.
  int send_mgmt_message(KXmessage& message) override {
    constexpr int patience_ms = 10'000;
    const int sent = KXclientComponent::send_mgmt_message(message);
    if (sent < 0 || message.m_header->msg_type != MSG_REQ) return sent;
    pollfd answer = {m_mgmt_fd, POLLIN, 0};
    return poll(&answer, 1, patience_ms) == 0 ? -1 : sent;
  }

  int send_data_message(KXmessage& message) override {
    const int sent = KXclientComponent::send_data_message(message);
    m_has_sent = sent > 0;
    return sent;
  }

 private:
  struct end_heeded {
    component& of;
    ~end_heeded() {
      if (std::any_of(of.m_waiting_queue.begin(), of.m_waiting_queue.end(), is_kill)) of.end_loop();
    }
  };

  static bool is_kill(const KXmessage& message) {
    return ntohl(message.m_header->src_siid) == management_siid &&
           message.m_header->cmd == CMD_KILL_COMPONENT;
  }
  static int static_end(void* context, int /*number*/) {
    static_cast<component*>(context)->end_loop();
    return -1;
  }

  bool m_ends = false;
  bool m_is_registered = false;
  bool m_has_sent = false;  // the last data message
};

class stub_link final : public link, public KXstub {
 public:
  stub_link(component& at, const std::string& xml, receiver& to)
      : KXstub(&at), m_at(at), m_xml(xml), m_receiver(to) {}

  // What the core cannot be told leaves the component's table all the same.
  ~stub_link() override {
    if (m_siid == no_siid) return;
    if (!m_at.is_stopped()) KXstub::disconnect(false);
    m_at.remove_connection(this);
  }

  result<> join(const std::string& name, kind of) {
    try {
      register_service(name.c_str(), of == kind::signal ? SGNL : ASYNC);
    } catch (const KXerror::error_e&) {
      m_siid = no_siid;
      return error{errc::refused, m_at.refusal()};
    }
    if (m_siid == no_siid) return error{errc::not_sent, "kxcore does not answer"};
    return {};
  }

  std::uint32_t siid() const override { return m_siid; }
  std::uint32_t service_siid() const override { return m_siid; }
  bool send(KXmessage& message) override { return !m_at.is_stopped() && connection_send(message); }
  outcome call(KXmessage& /*message*/) override { return outcome::not_sent; }

  using KXstub::process_message;
  void process_message(KXmessage& message) override { m_receiver.receive(message); }
  const char* get_xml_comment() const override { return m_xml.c_str(); }

 private:
  component& m_at;
  const std::string m_xml;
  receiver& m_receiver;
};

class proxy_link final : public link, public KXproxy {
 public:
  proxy_link(component& at, kind of, receiver& to)
      : KXproxy(&at), m_at(at), m_kind(of == kind::signal ? SGNL : ASYNC), m_receiver(to) {}

  ~proxy_link() override {
    if (m_siid == no_siid) return;
    if (m_at.is_stopped()) {
      m_at.remove_connection(this);
    } else {
      KXproxy::disconnect(true);
    }
  }

  result<> join(const std::string& name) {
    try {
      if (subscribe_service(name.c_str(), m_kind, nullptr) == 1) return {};
      return error{errc::not_sent, "kxcore does not answer"};
    } catch (const KXerror::error_e&) {
      m_siid = no_siid;
      return error{errc::no_service, m_at.refusal()};
    }
  }

  std::uint32_t siid() const override { return m_siid; }
  std::uint32_t service_siid() const override { return m_service_siid; }

  bool send(KXmessage& message) override {
    return send_as(message.m_header->msg_type == MSG_SIG ? SGNL : ASYNC, message);
  }
  outcome call(KXmessage& message) override {
    if (m_at.is_stopped()) return outcome::not_sent;
    if (m_at.has(m_service_siid)) return outcome::own;
    if (send_as(SYNC, message)) return outcome::answered;
    return m_at.has_sent() ? outcome::no_answer : outcome::not_sent;
  }

  using KXproxy::process_message;
  void process_message(KXmessage& message) override { m_receiver.receive(message); }

 private:
  // The kind of a proxy says how it sends, and to the core what it is.
  bool send_as(interface_type_e way, KXmessage& message) {
    if (m_at.is_stopped()) return false;
    m_interface_type = way;
    const bool is_done = proxy_send(message) == 1;
    m_interface_type = m_kind;
    return is_done;
  }

  component& m_at;
  const interface_type_e m_kind;
  receiver& m_receiver;
};

}  // namespace kx::detail

#endif
