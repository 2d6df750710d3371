#include "replay/recorded_calls.h"

#include "bus_events.h"
#include "datagram.h"
#include "pcapng.h"

namespace {

const std::string* text_at(const decoded_payload& payload, std::size_t i) {
  return i < payload.values.size() ? std::get_if<std::string>(&payload.values[i].content) : nullptr;
}

}  // namespace

decoded_payload decode(const std::string& payload) {
  return decode(reinterpret_cast<const unsigned char*>(payload.data()), payload.size());
}

KXmessage message_with(const std::string& payload) {
  const std::string datagram = std::string(header_size, '\0') + payload;
  return message_of(datagram.data(), datagram.size());
}

recorded_calls::recorded_calls(std::istream& from, const std::string& name, const std::string& service,
                               const filter& wanted)
    : m_service(service) {
  pcapng_reader packets(from, name);
  for (std::string packet; packets.next(packet);)
    if (const auto what = entry::parse(packet)) note(*what, wanted.matches(*what));
}

void recorded_calls::note(const entry& what, bool is_wanted) {
  learn_owner(what);
  const bool is_ours = what.head.service == m_service && what.has_message && !what.is_management();
  const bool is_new = what.head.event == RECORD_SENT || what.head.event == RECORD_QUEUED;  // once for each
  if (!is_ours || !is_new) return;
  if (what.type == MSG_REQ) m_owner = what.head.receiver;
  if (what.is_answer()) return add_answer(what);
  if (!is_wanted) return;
  if (what.type == MSG_SIG && is_of_owner(what)) return add_signal(what);
  if (what.type == MSG_REQ || what.type == MSG_SIG) add_call(what);
}

// The state at the beginning tells it, and later the event: that passes filters for the service.
void recorded_calls::learn_owner(const entry& what) {
  if (what.head.event == RECORD_SERVICES) return learn_from_rows(what);
  if (what.head.event != RECORD_EVENT || what.cmd != EVENT_OFFERED) return;
  const decoded_payload values = decode(std::string(what.payload));  // component, service, details
  const std::string* const component = text_at(values, 0);
  const std::string* const service = text_at(values, 1);
  if (component != nullptr && service != nullptr && *service == m_service) m_owner = *component;
}

void recorded_calls::learn_from_rows(const entry& what) {
  constexpr std::size_t first_row = 2, columns = 6, component = 4;
  const decoded_payload rows = decode(std::string(what.payload));
  for (std::size_t i = first_row; i + columns <= rows.values.size(); i += columns) {
    const std::string* const name = text_at(rows, i);
    const std::string* const owner = text_at(rows, i + component);
    if (name != nullptr && owner != nullptr && *name == m_service) m_owner = *owner;
  }
}

// Most signals are those of a service: so is one of which nothing else is known.
bool recorded_calls::is_of_owner(const entry& signal) const {
  return m_owner.empty() || signal.head.sender == m_owner;
}

void recorded_calls::add_call(const entry& what) {
  if (what.type == MSG_REQ)
    m_open[{std::string(what.head.sender), what.src_siid, what.dst_siid, what.msg_id}] = m_calls.size();
  m_calls.push_back({what.type, what.cmd, std::string(what.payload), what.sent_ns()});
}

// Of several answers the first counts.
void recorded_calls::add_answer(const entry& what) {
  const auto open = m_open.find({std::string(what.head.receiver), what.dst_siid, what.src_siid, what.msg_id});
  if (open == m_open.end()) return;
  recorded_call& call = m_calls[open->second];
  call.answer = {what.type, std::string(what.payload),
                 what.head.time_ns > call.time_ns ? what.head.time_ns - call.time_ns : 0};
  m_open.erase(open);
}

// A signal has a record for each subscriber.
void recorded_calls::add_signal(const entry& what) {
  const bool is_same = !m_signals.empty() && what.sent_ns() == m_last_signal_ns;
  m_last_signal_ns = what.sent_ns();
  if (!is_same) m_signals.push_back({what.type, what.cmd, std::string(what.payload), what.sent_ns()});
}
