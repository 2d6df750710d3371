#include "bus_events.h"

#include "core_services.h"
#include "values.h"

bus_events::bus_events(bus_client& client, bus_client::time_point until)
    : m_client(client), m_siid(subscribe_to_core(client, "kxcore.events", true, until).siid) {}

bool bus_events::next(bus_event& event, bus_client::time_point until) const {
  KXmessage message;
  while (m_client.receive(message, until)) {
    const decoded_payload told = decode(message);
    if (ntohl(message.m_header->dst_siid) != m_siid || told.signature() != "sss") continue;
    const auto text = [&told](std::size_t i) { return std::get<std::string>(told.values[i].content); };
    event = {message.m_header->cmd, text(0), text(1), text(2)};
    return true;
  }
  return false;
}
