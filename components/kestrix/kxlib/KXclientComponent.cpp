#include "KXclientComponent.h"

#include <arpa/inet.h>
#include <unistd.h>

#include "KXlog.h"
#include "KXproxy.h"
#include "KXstub.h"
#include "management.h"
#include "mutex_lock.h"
#include "shared_member.h"

namespace {

constexpr char source_path[] = "components/kestrix/kxlib/KXclientComponent";
constexpr char register_signature[] = "virtual void KXclientComponent::register_component()";

// A value that the core left out reads as -1, which as a siid means none.
int read_grant(const KXmessage& reply) {
  int value = -1;
  reply >> value;
  return value;
}

}  // namespace

void KXclientComponent::register_component() {
  for (int lines = 0; access(m_kxcore_mgmt_socket_name.c_str(), F_OK) != 0;) {
    // Counts the lines: what is not written is not evaluated.
    KX_LOG_INFO("waiting for kxcore to start [%d sec] [%s]...\n", ++lines, m_kxcore_mgmt_socket_name.c_str());
    pause_one_second();
  }

  KXmessage message;
  message.m_header->cmd = CMD_REG_COMPONENT;
  message.m_header->msg_id = htonl(registration_id);
  message << m_name;
  message << m_data_socket_name;
  KX_LOG_DEBUG3("cmp name=%s, data sock=%s", m_name, m_data_socket_name.c_str());
  if (!interconnect_service(nullptr, message)) {
    KX_LOG_ERROR("Failed to register component [%s]", m_name);
    kxlog::assert_failed("false", source_path, __LINE__, register_signature);
    return;
  }

  message >> m_kxcore_data_socket_name;
  if (m_kxcore_data_socket_name.empty()) {
    kxlog::assert_failed("m_kxcore_data_socket_name != \"\"", source_path, __LINE__, register_signature);
  }
  KX_LOG_DEBUG1("registered component [%s]\n", m_name);
  KX_LOG_DEBUG3("   kestrix-data-socket [%s]\n", m_kxcore_data_socket_name.c_str());
  KX_LOG_DEBUG3("   kestrix-mgmt-socket [%s]\n", m_kxcore_mgmt_socket_name.c_str());
}

void KXclientComponent::unregister_component() {
  KXmessage notice;
  notice.m_header->cmd = CMD_UNREG_COMPONENT;
  notice.m_header->msg_id = htonl(unregistration_id);
  notice << m_name;
  if (interconnect_service(nullptr, notice)) KX_LOG_DEBUG1("unregistered component [%s]\n", m_name);
}

bool KXclientComponent::interconnect_service(KXconnection* connection, KXmessage& message) {
  const auto cmd = static_cast<mgmt_cmd_e>(message.m_header->cmd);
  if (facts_of(cmd).kind == WITHDRAWAL) {
    address_management(message, MSG_SIG);
    return send_mgmt_message(message) > 0;
  }

  keep_refusal(nullptr);
  address_management(message, MSG_REQ);
  const unsigned int awaited = ntohl(message.m_header->msg_id);
  if (send_mgmt_message(message) < 0) return false;
  if (!await_reply(message, awaited)) return false;
  if (message.m_header->msg_type == MSG_ERR) {
    keep_refusal(&message);
    KX_LOG_WARNING("reveived error message, aborting...");
    throw KXerror::ERR_ERROR_REPLY;
  }
  store_grant(cmd, connection, message);
  return true;
}

// Receives into `message` until it holds the reply with the awaited id; false when nothing can be received.
bool KXclientComponent::await_reply(KXmessage& message, unsigned int awaited) {
  for (;;) {
    peer_info_t peer;
    const int received = rec_message(load(m_mgmt_fd), message, false, peer);
    if (received <= 0) return false;
    if (!holds_header(received, "interconnect_service")) continue;
    const unsigned int id = ntohl(message.m_header->msg_id);
    if (id == awaited) return true;
    set_aside(message);
    KX_LOG_WARNING_IN("interconnect_service", "Message added to waiting queue: id=0x%x", id);
  }
}

// Gives the connection what the core granted in its reply to `cmd`.
void KXclientComponent::store_grant(mgmt_cmd_e cmd, KXconnection* connection, const KXmessage& reply) {
  const command_kind_e kind = facts_of(cmd).kind;
  if (kind != OFFER && kind != SUBSCRIPTION) return;
  const int siid = read_grant(reply);
  if (kind == OFFER) {
    connection->m_siid = static_cast<unsigned int>(siid);
    bind_siid(connection->m_siid, connection);
    return;
  }
  const int service_siid = read_grant(reply);
  const int mid_first = read_grant(reply);
  const int mid_end = read_grant(reply);
  auto* proxy = static_cast<KXproxy*>(connection);
  proxy->m_siid = static_cast<unsigned int>(siid);
  bind_siid(proxy->m_siid, proxy);
  proxy->m_service_siid = static_cast<unsigned int>(service_siid);
  proxy->m_mid_end = static_cast<unsigned int>(mid_end);
  proxy->m_mid_first = static_cast<unsigned int>(mid_first);
}

int KXclientComponent::send_mgmt_message(KXmessage& message) {
  return send_message_to(load(m_mgmt_fd), m_kxcore_mgmt_socket_name.c_str(), message);
}

int KXclientComponent::send_data_message(KXmessage& message) {
  return send_message_to(load(m_data_fd), m_kxcore_data_socket_name.c_str(), message);
}

void KXclientComponent::get_data_message(int /*fd*/) {
  KXmessage message;
  peer_info_t peer;
  int received = 0;
  {
    const mutex_lock lock(m_mutex);
    if (m_data_taken) return;  // first what was set aside; and poll must tell whether anything is left
    received = rec_message(load(m_data_fd), message, true, peer);
  }
  if (received <= 0 || !holds_header(received, __func__)) return;
  deliver(message);
}
