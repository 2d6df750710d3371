#include "introspection.h"

#include <arpa/inet.h>

#include <unistd.h>

#include "management.h"
#include "payload.h"
#include "request.h"
#include "socket_address.h"

namespace {

enum directory_cmd_e : std::uint8_t { COMPONENTS = 1, SERVICES, USERS, DESCRIPTION };
enum stats_cmd_e : std::uint8_t { COMPONENT_COUNTERS = 1, SERVICE_COUNTERS, REASONS };

constexpr char unparsable[] = "the payload does not parse";
constexpr char unknown_command[] = "this service has no such command";

}  // namespace

introspection::introspection(roster& peers, strangers& outsiders, reporter& report)
    : m_peers(peers),
      m_strangers(outsiders),
      m_report(report),
      m_pages(peers, report),
      m_directory(peers.services().offer_own("kxcore.directory", false, *this)),
      m_stats(peers.services().offer_own("kxcore.stats", false, *this)),
      m_events(peers.services().offer_own("kxcore.events", true, *this)) {}

// --- requests ---

void introspection::serve(peer& from, const service& asked, const KXmessage& request) {
  m_peers.show(RECORD_RECEIVED, &from, "kxcore", request);
  if (request.m_header->msg_type != MSG_REQ)
    return m_report.dropped(from.of_its_own, from.name.c_str(), "the core's services take requests only");
  const open_request way = request_of(request);
  KXmessage reply = answer_to(way, MSG_RSP);
  const std::string refusal = answer(asked, request, reply);
  m_peers.send(from, from.data, refusal.empty() ? reply : failure_of(way, refusal.c_str()), nullptr);
}

// Writes the answer into the reply, or returns why there is none.
std::string introspection::answer(const service& asked, const KXmessage& request, KXmessage& reply) {
  if (&asked == m_directory.get()) return answer_directory(request, reply);
  if (&asked == m_stats.get()) return answer_stats(request, reply);
  return "it is a signal";
}

std::string introspection::answer_directory(const KXmessage& request, KXmessage& reply) {
  const std::uint8_t cmd = request.m_header->cmd;
  if (cmd < COMPONENTS || cmd > DESCRIPTION) return unknown_command;
  payload values(request);
  std::string name;
  std::string after;
  if (!values.take(name) || (cmd == USERS && !values.take(after)) || !values.is_at_end()) return unparsable;
  if (cmd == COMPONENTS) return m_pages.components(reply, name), std::string();
  if (cmd == SERVICES) return m_pages.services(reply, name), std::string();
  const std::shared_ptr<service> named = m_peers.services().find_offered(name);
  if (named == nullptr) return "nobody offers '" + name + "'";
  if (cmd == USERS) return m_pages.users(reply, *named, after), std::string();
  reply << named->description.xml_comment;
  reply << named->description.interface_class;
  return {};
}

std::string introspection::answer_stats(const KXmessage& request, KXmessage& reply) {
  const std::uint8_t cmd = request.m_header->cmd;
  if (cmd < COMPONENT_COUNTERS || cmd > REASONS) return unknown_command;
  payload values(request);
  std::string name;
  std::string after;
  if (!values.take(name) || (cmd == REASONS && !values.take(after)) || !values.is_at_end()) return unparsable;
  if (cmd == COMPONENT_COUNTERS) return m_pages.component_counters(reply, name), std::string();
  if (cmd == SERVICE_COUNTERS) return m_pages.service_counters(reply, name), std::string();
  peer* const named = name.empty() ? nullptr : m_peers.at_mgmt(bus_path + name);
  if (named == nullptr && !name.empty()) return "no component '" + name + "' is registered";
  m_pages.reasons(reply, m_strangers.tally_of(named), after);
  return {};
}

// --- events ---

void introspection::tell_events() {
  while (m_report.events.has_some())
    tell(m_report.events.take());
  m_report.events.listen(!m_events->users.empty() || m_report.monitors.is_watched());
}

void introspection::tell(const bus_event& event) {
  KXmessage signal;
  signal.m_header->dst_siid = htonl(m_events->subscribers_siid);
  signal.m_header->src_siid = htonl(m_events->siid);
  signal.m_header->msg_type = MSG_SIG;
  signal.m_header->cmd = event.what;
  for (const std::string* const text : {&event.component, &event.service, &event.details})
    signal << *text;
  for (const auto& user : m_events->users)
    m_peers.send(*user.first, user.first->data, signal, nullptr);
  if (!m_report.monitors.is_watched()) return;
  record about = {RECORD_EVENT};
  about.sender = event.component;
  about.service = event.service;
  about.reason = event.details;
  m_report.monitors.show(about, signal.m_header, static_cast<std::size_t>(signal.datagram_size()));
}

// --- the state of the bus ---

void introspection::show_state(const traffic::show_t& show) const {
  using page_t = std::string (bus_pages::*)(KXmessage&, const std::string&) const;
  for (const auto& [event, write] :
       {std::pair<record_event_e, page_t>{RECORD_COMPONENTS, &bus_pages::components},
        {RECORD_SERVICES, &bus_pages::services}}) {
    std::string after;
    do {
      KXmessage page;
      after = (m_pages.*write)(page, after);
      show(event, page);
    } while (!after.empty());
  }
}
