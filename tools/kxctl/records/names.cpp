#include "names.h"

#include <utility>

#include "bus_events.h"

namespace {

constexpr std::size_t max_known = 65536;  // services; the names of more come from a broken recording

// The core's own services. The rows of an answer have no names.
const std::map<std::string, const char*> core_services = {{"kxcore.directory", R"(<interface>
<method cmd="1" name="components"><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
<method cmd="2" name="services"><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
<method cmd="3" name="users"><arg name="service" type="s"/><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
<method cmd="4" name="description"><arg name="service" type="s"/>
  <arg direction="out" name="comment" type="s"/><arg direction="out" name="class" type="s"/></method>
</interface>)"},
                                                          {"kxcore.stats", R"(<interface>
<method cmd="1" name="components"><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
<method cmd="2" name="services"><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
<method cmd="3" name="reasons"><arg name="component" type="s"/><arg name="after" type="s"/>
  <arg direction="out" name="generation" type="u"/><arg direction="out" name="more" type="b"/></method>
</interface>)"}};

constexpr char events_service[] = "kxcore.events";

std::string events_description() {
  std::string xml = "<interface>";
  int cmd = 0;
  for (const char* const event : {"registered", "gone", "offered", "withdrawn", "subscribed", "unsubscribed",
                                  "refused", "does not read", "reads again"})
    xml +=
        "<signal cmd=\"" + std::to_string(++cmd) + "\" name=\"" + event +
        R"("><arg name="component" type="s"/><arg name="service" type="s"/><arg name="details" type="s"/></signal>)";
  return xml + "</interface>";
}

decoded_payload decoded(const entry& what) {
  return decode(reinterpret_cast<const unsigned char*>(what.payload.data()), what.payload.size());
}

}  // namespace

names::names(fetch_t fetch) : m_fetch(std::move(fetch)) {
  for (const auto& each : core_services)
    m_known[each.first] = description::parse(each.second);
  m_known[events_service] = description::parse(events_description());
}

void names::learn(const entry& from) {
  if (from.head.event == RECORD_EVENT) return learn_event(from);
  const bool is_offer = from.is_management() && from.has_message && from.type == MSG_REQ &&
                        !from.is_failure() && (from.cmd == CMD_REG_FUNCTION || from.cmd == CMD_REG_SIGNAL);
  if (!is_offer) return;
  const decoded_payload offer = decoded(from);  // of: component, service, comment, class, kind
  if (offer.signature() != "ssssu" || m_known.size() + m_offered.size() >= max_known) return;
  const auto& service = std::get<std::string>(offer.values[1].content);
  if (service.rfind("kxcore.", 0) == 0) return;  // is refused
  m_offered[service] = std::get<std::string>(offer.values[2].content);
}

// Only what was granted counts. Of an offer that was not seen the description is to be fetched again.
void names::learn_event(const entry& from) {
  if (from.cmd != EVENT_OFFERED && from.cmd != EVENT_WITHDRAWN) return;
  const std::string service(from.head.service);
  const auto offer = m_offered.find(service);
  if (from.cmd == EVENT_OFFERED && offer != m_offered.end())
    m_known[service] = description::parse(offer->second);
  else if (m_fetch)
    m_known.erase(service);
  m_offered.erase(service);
}

const description::command* names::find(const entry& what) {
  if (!what.has_message || what.is_management()) return nullptr;
  const std::string service(what.head.event == RECORD_EVENT ? events_service : what.head.service);
  auto known = m_known.find(service);
  if (known == m_known.end()) {
    if (!m_fetch || m_known.size() >= max_known) return nullptr;
    known = m_known.emplace(service, description::parse(m_fetch(service))).first;
  }
  return known->second ? known->second->find(what.cmd, what.type == MSG_SIG) : nullptr;
}

std::string names::command_of(const entry& what) {
  const description::command* const found = find(what);
  return found == nullptr ? "" : found->name;
}

std::vector<description::field> names::fields_of(const entry& what, const decoded_payload& payload) {
  const description::command* const found = find(what);
  if (found == nullptr || what.type == MSG_ERR) return {};
  std::vector<description::field> fields = what.type == MSG_REQ ? found->in : found->out;
  std::size_t fitting = 0;
  while (fitting < fields.size() && fitting < payload.values.size() &&
         fields[fitting].type == payload.values[fitting].type)
    ++fitting;
  fields.resize(fitting);
  return fields;
}
