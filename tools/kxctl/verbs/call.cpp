// One message: call, send and emit.
#include "bus_events.h"
#include "core_services.h"
#include "printable.h"
#include "standard_output.h"
#include "values.h"
#include "verbs/verbs.h"

namespace {

void show(const options& given, const KXmessage& message) {
  const std::string text = given.json ? dump(json_of(message)) : text_of(message);
  if (!text.empty()) write_out(text + "\n");
}

// Waits until a component subscribes to the signal, if none does already.
void wait_for_subscriber(bus_client& client, const bus_events& events, const std::string& service,
                         bus_client::time_point until) {
  if (!core_services(client, until).users(service).empty()) return;
  for (bus_event event; events.next(event, until);)
    if (event.what == EVENT_SUBSCRIBED && event.service == service) return;
  throw failure(TIMED_OUT, "nobody subscribes to '" + printable(service) + "' in time");
}

}  // namespace

void call(const options& given, const outgoing& what) {
  const auto until = given.deadline();
  bus_client client(until);
  bus_client::proxy proxy = client.subscribe(what.service, false, until);
  const KXmessage answer = client.call(proxy, what.cmd(client, until), what.payload, until);
  const bool is_refused = answer.m_header->msg_type == MSG_ERR;
  if (given.json || !is_refused) show(given, answer);
  if (is_refused) throw failure(REFUSED, reason_of(answer));
}

void send(const options& given, const outgoing& what) {
  const auto until = given.deadline();
  bus_client client(until);
  bus_client::proxy proxy = client.subscribe(what.service, false, until);
  client.send(proxy, MSG_SIG, what.cmd(client, until), what.payload, until);
}

void emit(const options& given, const outgoing& what, bool waits) {
  const auto until = given.deadline();
  bus_client client(until);
  std::optional<bus_events> events;
  if (waits) events.emplace(client, until);
  const std::uint32_t siid = client.offer(what.service, KXconnection::SGNL, until);
  if (waits) wait_for_subscriber(client, *events, what.service, until);
  KXmessage message(what.payload);
  message.m_header->dst_siid = htonl(siid);  // its own siid stands for all subscribers
  message.m_header->src_siid = htonl(siid);
  message.m_header->msg_type = MSG_SIG;
  message.m_header->cmd = what.cmd(client, until);
  client.send(message, until);
}
