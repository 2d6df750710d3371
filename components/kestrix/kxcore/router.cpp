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
  m_strangers.drop(nullptr, from, reason, &message);
  if (message.m_header->msg_type == MSG_REQ)
    m_strangers.answer(from, failure_of(request_of(message), reason));
}

void router::route(peer& from, KXmessage& message) {
  ++from.sent;
  from.sent_bytes += static_cast<std::size_t>(message.datagram_size());
  const open_request way = request_of(message);
  if (!m_peers.services().owns(from, way.from))
    return refuse(from, message, "its source siid is not the sender's");
  const endpoint* to = m_peers.services().find(way.to);
  if (to == nullptr) return miss(from, message, "no service has this siid");
  service& serving = *to->of;
  const bool is_own_service = way.from == serving.siid;
  if (to->role != endpoint::STUB && !is_own_service)
    return refuse(from, message, "only its service reaches a proxy or subscribers");
  const bool to_itself = way.to == way.from && message.m_header->msg_type == MSG_SIG;
  if (to->role == endpoint::SUBSCRIBERS || (to_itself && serving.is_signal))
    return fan_out(from, message, serving);

  if (serving.handler != nullptr) return serving.handler->serve(from, serving, message);
  peer* const receiver = to->holder();
  if (receiver == nullptr) return miss(from, message, "the service is not offered any more");
  if (const char* const reason = check(from, message, *to, *receiver)) return refuse(from, message, reason);
  if (message.m_header->msg_type == MSG_REQ) from.open.add(way);
  const char* const reason = forward(from, message, *receiver);
  if (reason == nullptr) count(serving, message);
  fail(from, message, reason);
}

void router::count(service& of, const KXmessage& message) {
  const std::uint8_t type = message.m_header->msg_type;
  if (type <= MSG_SIG) ++of.passed[type];
}

// Why a message may not go to a stub or proxy of the receiver; null when it may. An answer closes its
// request.
const char* router::check(const peer& from, const KXmessage& message, const endpoint& to,
                          peer& receiver) const {
  const open_request way = request_of(message);
  const bool may_answer = is_answer(message) || to.role == endpoint::PROXY;
  if (may_answer && receiver.open.close(way.to, way.from, way.msg_id)) return nullptr;
  if (to.role == endpoint::STUB && is_answer(message)) return "it answers no open request";
  return is_id_of(receiver, from, way) ? "its message id is one of the receiver's own" : nullptr;
}

// Whether the receiver was granted the id for something else than what this message comes from.
bool router::is_id_of(const peer& receiver, const peer& from, const open_request& way) const {
  const mid_ranges::holder asked = m_peers.services().id_holder(way.msg_id);
  return asked.component == &receiver && asked.siid != way.to && &from != &receiver;
}

// What a signal's stub sends to its subscribers: to all of them, or to the one whose request it answers.
void router::fan_out(peer& from, KXmessage& message, service& signal) {
  message.m_header->dst_siid = htonl(signal.subscribers_siid);
  const open_request way = request_of(message);
  const bool is_signal = message.m_header->msg_type == MSG_SIG;
  const mid_ranges::holder asked = m_peers.services().id_holder(way.msg_id);
  if (asked.siid == way.to && !is_signal) {
    asked.component->open.close(way.to, way.from, way.msg_id);
    return fail(from, message, forward(from, message, *asked.component));
  }
  if (message.m_header->msg_type == MSG_REQ) from.open.add(way);
  constexpr const char* nobody = "nobody subscribes to the signal";
  const char* reason = nobody;
  bool is_taken = false;
  for (const auto& subscriber : signal.users) {
    peer& receiver = *subscriber.first;
    const bool is_its_own = asked.component == &receiver && &from != &receiver;
    if (is_its_own && !is_signal) continue;
    message.m_header->msg_id = htonl(is_its_own ? 0 : way.msg_id);
    reason = forward(from, message, receiver);
    is_taken = is_taken || reason == nullptr;
  }
  message.m_header->msg_id = htonl(way.msg_id);
  if (is_taken) return count(signal, message);
  if (reason == nobody) m_peers.show(RECORD_DROPPED, &from, {}, message, reason);
  fail(from, message, reason);
}

// Everything that one component sends to another passes here. Why it does not arrive, or null.
const char* router::forward(peer& from, const KXmessage& message, peer& to) {
  switch (m_peers.send(to, to.data, message, &from)) {
    case outlet::FULL:
      return "the component does not read, its queue is full";
    case outlet::GONE:
      return "the component is gone";
    default:
      return nullptr;
  }
}

// A message that its sender may not send.
void router::refuse(peer& from, const KXmessage& message, const char* reason) {
  m_peers.show(RECORD_REFUSED, &from, {}, message, reason);
  m_report.dropped(from.of_its_own, from.name.c_str(), reason);
  fail(from, message, reason);
}

// A message that there is nobody for.
void router::miss(peer& from, const KXmessage& message, const char* reason) {
  m_peers.show(RECORD_DROPPED, &from, {}, message, reason);
  if (message.m_header->msg_type != MSG_REQ) m_report.dropped(from.of_its_own, from.name.c_str(), reason);
  fail(from, message, reason);
}

// Answers a request that does not arrive. Of other messages who receives them has taken note.
void router::fail(peer& from, const KXmessage& message, const char* reason) {
  if (reason == nullptr || message.m_header->msg_type != MSG_REQ) return;
  m_peers.fail(from, request_of(message), reason);
}
