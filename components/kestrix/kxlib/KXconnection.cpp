#include "KXconnection.h"

#include <arpa/inet.h>

#include <atomic>

#include "management.h"
#include "shared_member.h"

const char* const KXconnection::interface_type2str[3] = {"SYNC", "ASYNC", "SGNL"};

namespace {

unsigned int next_request_id() {
  static std::atomic<unsigned int> last{0};
  for (;;) {
    const unsigned int id = ++last;
    if (!is_reserved_id(id)) return id;
  }
}

}  // namespace

bool KXconnection::connection_send(KXmessage& message) {
  message.m_header->src_siid = htonl(m_siid);
  return m_component->send_data_message(message) > 0;
}

bool KXconnection::connection_receive(KXmessage& message) { return receive_datagram(message) > 0; }

int KXconnection::receive_datagram(KXmessage& message) {
  message.size = 0;
  message.pos = 0;
  peer_info_t peer;
  return m_component->rec_message(load(m_component->m_data_fd), message, true, peer);
}

void KXconnection::begin_request(KXmessage& message, mgmt_cmd_e cmd) {
  message.m_header->cmd = cmd;
  message.m_header->msg_id = htonl(next_request_id());
}
