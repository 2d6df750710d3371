#ifndef KXCLIENTCOMPONENT_H
#define KXCLIENTCOMPONENT_H

#include <string>
#include <utility>

#include "KXcomponent.h"
#include "KXexport.h"
#include "KXlog.h"
#include "KXmessage.h"

/// The component that applications construct: it takes part in the bus through the core daemon kxcore.
///
/// start waits for kxcore's management socket, "/tmp/kxcore/kxcore", as long as it is missing, with one INFO
/// line for each second, and then registers the component. See KXcomponent for all other operations.
class KX_EXPORT KXclientComponent : public KXcomponent {
 public:
  /// As the constructors of KXcomponent, which see for `name`, `cfg` and what they throw. kxcore is not asked
  /// for anything before start.
  /// @{
  explicit KXclientComponent(const char* name) : KXclientComponent(name, std::string(core_path)) {}
  KXclientComponent(const char* name, const ExtraCfg* cfg)
      : KXclientComponent(name, cfg, std::string(core_path)) {}
  /// @}

  /// One management exchange with kxcore, in the caller's message: `cmd`, `msg_id` and the payload are the
  /// caller's, the other header fields are set here. A withdrawal is sent and not answered; any other command
  /// waits, without limit, for the reply with the request's id, and sets other messages aside for the event
  /// loop. `connection` is the subject of a registration or subscription, which receives what kxcore grants;
  /// else null.
  /// @return whether the exchange took place; then `message` holds the reply, cursor at the start of its
  ///         payload
  /// @throws KXerror::ERR_ERROR_REPLY when kxcore refuses, KXerror::ERR_SIID_PRESENT from bind_siid
  bool interconnect_service(KXconnection* connection, KXmessage& message) override;

  /// Waits for kxcore and registers the component.
  /// @throws KXerror::ERR_ERROR_REPLY when kxcore refuses
  void register_component() override;

  /// Tells kxcore that the component leaves; waits for nothing.
  void unregister_component() override;

  /// Receives one datagram of the data socket and delivers it to the connections of its dst_siid, of which
  /// there may be none. Throws what they throw.
  void get_data_message(int fd) override;

  /// Receives one datagram of the management socket: KILL-COMPONENT ends the event loop, anything else is
  /// dropped.
  void get_mgmt_message(int /*fd*/) override {
    KX_LOG_INFO("receive mgmt message");
    KXmessage message;
    peer_info_t peer;
    const int received = rec_message(m_mgmt_fd, message, false, peer);
    if (received <= 0 || !holds_header(received, __func__)) return;
    if (message.m_header->cmd == CMD_KILL_COMPONENT) {
      KX_LOG_INFO("process need to close down..\n");
      __atomic_store_n(&m_running, false, __ATOMIC_RELAXED);
    }
  }

  /// As send_message_to, to kxcore's management socket and to its data socket.
  /// @{
  int send_mgmt_message(KXmessage& message) override;
  int send_data_message(KXmessage& message) override;
  /// @}

 protected:
  std::string m_kxcore_mgmt_socket_name;  ///< path; fixed
  std::string m_kxcore_data_socket_name;  ///< path that kxcore names in its reply to the registration

 private:
  static constexpr char core_path[] = "/tmp/kxcore/kxcore";

  // The string is there before the sockets are: when it cannot be had, nothing is left behind.
  KXclientComponent(const char* name, std::string core)
      : KXcomponent(name), m_kxcore_mgmt_socket_name(std::move(core)) {}
  KXclientComponent(const char* name, const ExtraCfg* cfg, std::string core)
      : KXcomponent(name, cfg), m_kxcore_mgmt_socket_name(std::move(core)) {}

  bool await_reply(KXmessage& message, unsigned int awaited);
  void store_grant(mgmt_cmd_e cmd, KXconnection* connection, const KXmessage& reply);
};

#endif
