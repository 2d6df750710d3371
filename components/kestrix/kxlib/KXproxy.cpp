#include "KXproxy.h"

#include <arpa/inet.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "mutex_lock.h"
#include "synchronous_wait.h"

namespace {

// Without a clock the sixth message that is not the response ends the wait.
constexpr int limit_without_clock = 5;

// The whole seconds of the monotonic clock; false, with an ERROR line, when it cannot be read.
bool read_seconds(long long& seconds) {
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    KX_LOG_ERROR_IN("proxy_send", "Failed to get the current time: %s", strerror(errno));
    return false;
  }
  seconds = now.tv_sec;
  return true;
}

}  // namespace

int KXproxy::subscribe_synchronous(const char* name) {
  KX_LOG_DEBUG1("Subscribe function %s", name);
  return subscribe_service(name, SYNC, nullptr);
}

int KXproxy::subscribe_asynchronous(const char* name, KXproxyReplyInterface* reply) {
  KX_LOG_DEBUG1("Subscribe function %s", name);
  return subscribe_service(name, ASYNC, reply);
}

int KXproxy::subscribe_signal(const char* name) {
  KX_LOG_DEBUG1("Subscribe signal %s", name);
  return subscribe_service(name, SGNL, nullptr);
}

int KXproxy::subscribe_service(const char* name, interface_type_e type, KXproxyReplyInterface* reply) {
  m_service_name = name;
  KXmessage request;
  begin_request(request, type == SGNL ? CMD_SUB_SIGNAL : CMD_SUB_FUNCTION);
  request << m_service_name;
  m_reply_interface = reply;
  m_interface_type = type;
  if (!m_component->interconnect_service(this, request)) return 0;
  m_mid = m_mid_first;
  KX_LOG_DEBUG1("Proxy subscribed [%s -> %d/%d], mid=[%d-%d]", m_service_name.c_str(), m_siid, m_service_siid,
                m_mid_first, m_mid_end - 1);
  return 1;
}

int KXproxy::proxy_send(KXmessage& message) {
  if (m_service_name.empty()) {
    KX_LOG_ERROR("Proxy is not subscribed to service => unable to send msg");
    return 0;
  }
  if (m_interface_type == not_connected) {
    KX_LOG_ERROR("Proxy for service %s is not connected => unable to send msg", m_service_name.c_str());
    return 0;
  }
  if (m_interface_type != SYNC) {
    address(message);
    return connection_send(message) ? 1 : 0;
  }
  const mutex_lock lock(m_component->m_mutex);
  address(message);
  const unsigned int awaited = ntohl(message.m_header->msg_id);
  if (!connection_send(message)) return 0;
  const synchronous_wait wait(*m_component);
  return await_response(message, awaited) ? 1 : 0;
}

// Fills the header of a message to the service: its siid, the next id of the granted range, the type.
void KXproxy::address(KXmessage& message) {
  message.m_header->dst_siid = htonl(m_service_siid);
  ++m_mid;
  if (m_mid == m_mid_end) m_mid = m_mid_first;
  message.m_header->msg_id = htonl(m_mid);
  message.m_header->msg_type = m_interface_type == SGNL ? MSG_SIG : MSG_REQ;
}

// Receives into `message` until it holds the response with the awaited id. The time limit is looked at when
// another message arrives; silence ends the wait by the limit of a single receive.
bool KXproxy::await_response(KXmessage& message, unsigned int awaited) {
  long long started = 0;
  const bool clock_works = read_seconds(started);
  for (int others = 0;; ++others) {
    const int received = receive_datagram(message);
    if (received <= 0) return false;
    const bool whole = KXcomponent::holds_header(received, "proxy_send");
    if (whole && ntohl(message.m_header->msg_id) == awaited) return true;

    long long now = 0;
    const bool timed = clock_works && read_seconds(now);
    if (timed && now > started + m_timeout) {
      KX_LOG_ERROR_IN(
          "proxy_send",
          "[%s] Response for synchronous request did not arrive within %d seconds ... bailing out",
          m_service_name.c_str(), m_timeout);
      return false;
    }
    if (!timed && others >= limit_without_clock) {
      KX_LOG_ERROR_IN("proxy_send", "[%s] Received several msgs with wrong id ... bailing out",
                      m_service_name.c_str());
      return false;
    }
    if (!whole) continue;
    m_component->set_aside(message);
    KX_LOG_DEBUG1_IN("proxy_send", "[%s] received message added to waiting queue: id=%d",
                     m_service_name.c_str(), ntohl(message.m_header->msg_id));
  }
}

void KXproxy::disconnect(bool remove) {
  if (m_interface_type == not_connected) {
    KX_LOG_DEBUG1("Service [%s] is already disconnected", m_service_name.c_str());
    return;
  }
  if (m_siid != no_siid) {
    KXmessage notice;
    if (m_interface_type == SGNL) {
      begin_request(notice, CMD_UNSUB_SIGNAL);
      kxlog::assert_failed("false", "components/kestrix/kxlib/KXproxy", __LINE__,
                           "virtual void KXproxy::disconnect(bool)");
    } else {
      begin_request(notice, CMD_UNSUB_FUNCTION);
    }
    notice << m_siid;
    if (!m_component->interconnect_service(this, notice)) {
      KX_LOG_ERROR("Failed to unsubscribe service [%s] from kxcore", m_service_name.c_str());
    }
  }
  if (remove) m_component->remove_connection(this);
  m_interface_type = not_connected;
  KX_LOG_DEBUG1("unsubscribed service [%s]", m_service_name.c_str());
}

void KXproxy::connection_process_message(KXmessage& message) { process_message(message); }
