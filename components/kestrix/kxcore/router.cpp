#include "router.h"

#include <arpa/inet.h>

#include "KXlog.h"
#include "request.h"

namespace {

bool is_answer(const KXmessage& message) {
  return message.m_header->msg_type == MSG_RSP || message.m_header->msg_type == MSG_ERR;
}

}  // namespace

router::router(roster& peers, strangers& outsiders, reporter& report)
    : m_peers(peers), m_strangers(outsiders), m_report(report) {}

void router::serve(const sender& from, KXmessage& message) {
  peer* const registered = m_peers.find_data(from);
  if (registered == nullptr) return refuse_stranger(from, message);
  KX_LOG_DEBUG3("RX : [%d]->[%d] : %s : %d (id=%d)", ntohl(message.m_header->src_siid),
                ntohl(message.m_header->dst_siid), msg_type_name(message.m_header->msg_type),
                message.m_header->cmd, ntohl(message.m_header->msg_id));
  route(*registered, message);
}

void router::refuse_stranger(const sender& from, const KXmessage& message) {
  const peer* const registered = m_peers.at_data(from.path);
  const char* const reason = registered == nullptr ? "the sender is not registered"
                                                   : "another process has registered with this socket";
  m_strangers.drop(nullptr, from, reason);
  if (message.m_header->msg_type != MSG_REQ || m_answers_left == 0) return;
  --m_answers_left;
  m_strangers.answer(from, registered, failure_of(request_of(message), reason));
}

void router::route(peer& from, KXmessage& message) {
  const open_request way = request_of(message);
  if (!m_peers.services().owns(from, way.from))
    return refuse(from, message, "its source siid is not the sender's");
  const endpoint* to = m_peers.services().find(way.to);
  if (to == nullptr) return miss(from, message, "no service has this siid");
  const service& serving = *to->of;
  const bool is_own_service = way.from == serving.siid;
  if (to->role != endpoint::STUB && !is_own_service)
    return refuse(from, message, "only its service reaches a proxy or subscribers");
  const bool to_itself = way.to == way.from && message.m_header->msg_type == MSG_SIG;
  if (to->role == endpoint::SUBSCRIBERS || (to_itself && serving.is_signal))
    return fan_out(from, message, serving);

  peer* const receiver = to->holder();
  if (receiver == nullptr) return miss(from, message, "the service is not offered any more");
  if (const char* const reason =
          is_answer(message) ? check_answer(*receiver, way, to->role) : check_id(from, *receiver, way.msg_id);
      reason != nullptr) {
    return refuse(from, message, reason);
  }
  const bool is_request = message.m_header->msg_type == MSG_REQ;
  if (is_request) from.open.add(way);
  const char* const reason = forward(from, message, *receiver);
  if (is_request && reason != nullptr) m_peers.fail(from, way, reason);
}

// Why an answer may not go to a stub or proxy of the receiver; null when it may. It closes the request.
const char* router::check_answer(peer& receiver, const open_request& way, endpoint::role_e role) {
  const bool is_awaited = receiver.open.close(way.to, way.from, way.msg_id);
  if (role == endpoint::STUB) return is_awaited ? nullptr : "it answers no open request";
  const mid_ranges::holder asked = m_peers.services().id_holder(way.msg_id);
  return asked.component != &receiver || asked.siid == way.to ? nullptr : "it answers for another service";
}

// The same of any other message.
const char* router::check_id(const peer& from, const peer& receiver, std::uint32_t msg_id) {
  const bool is_its_own = m_peers.services().id_holder(msg_id).component == &receiver;
  return is_its_own && &from != &receiver ? "its message id is one of the receiver's own" : nullptr;
}

// What a signal's stub sends to its subscribers: to all of them, or to the one whose request it answers. A
// request fails when it goes to none.
void router::fan_out(peer& from, KXmessage& message, const service& signal) {
  message.m_header->dst_siid = htonl(signal.subscribers_siid);
  const open_request way = request_of(message);
  const mid_ranges::holder asked = m_peers.services().id_holder(way.msg_id);
  if (is_answer(message) && asked.siid == way.to) {
    asked.component->open.close(way.to, way.from, way.msg_id);
    forward(from, message, *asked.component);
    return;
  }
  if (message.m_header->msg_type == MSG_REQ) from.open.add(way);
  const char* failure = "nobody has subscribed";
  for (const auto& subscriber : signal.subscribers) {
    peer& receiver = *subscriber.first;
    const bool is_its_own = check_id(from, receiver, way.msg_id) != nullptr;
    if (is_its_own && is_answer(message)) continue;
    message.m_header->msg_id = htonl(is_its_own ? 0 : way.msg_id);
    const char* const reason = forward(from, message, receiver);
    if (failure != nullptr) failure = reason;
  }
  if (message.m_header->msg_type == MSG_REQ && failure != nullptr) m_peers.fail(from, way, failure);
}

// Everything that one component sends to another passes here. Returns why it does not go, or null.
const char* router::forward(peer& from, const KXmessage& message, peer& to) {
  const outlet::result_e result = m_peers.send(to, to.data, message, &from);
  if (result == outlet::FULL) return "the component does not read, its queue is full";
  return result == outlet::GONE ? "the component is gone" : nullptr;
}

// A message that its sender may not send.
void router::refuse(peer& from, const KXmessage& message, const char* reason) {
  m_report.dropped(from.of_its_own.dropped, from.name.c_str(), reason);
  if (message.m_header->msg_type == MSG_REQ) m_peers.fail(from, request_of(message), reason);
}

// A message that nobody takes.
void router::miss(peer& from, const KXmessage& message, const char* reason) {
  if (message.m_header->msg_type != MSG_REQ)
    return m_report.dropped(from.of_its_own.dropped, from.name.c_str(), reason);
  m_peers.fail(from, request_of(message), reason);
}
