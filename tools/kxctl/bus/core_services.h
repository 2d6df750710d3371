// What the core tells about the bus: the tables of kxcore.directory and kxcore.stats.
#ifndef KXCTL_CORE_SERVICES_H
#define KXCTL_CORE_SERVICES_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bus_client.h"
#include "values.h"

class core_services {
 public:
  using time_point = bus_client::time_point;

  // An object for each row, in the order of their keys. Its strings may be of any bytes.
  using rows = std::vector<nlohmann::json>;

  // Throws failure, as all of them do; here also when the core tells nothing.
  core_services(bus_client& client, time_point until);

  // Gives what is asked from now on more time.
  void allow(time_point until) { m_until = until; }

  rows components();
  rows services();
  rows users(const std::string& service);
  nlohmann::json description(const std::string& service);

  rows component_counters();
  rows service_counters();
  rows reasons(const std::string& component);

 private:
  struct table;
  rows read(const table& which, const std::string& of = "");
  std::string read_page(const table& which, const KXmessage& request, rows& to);
  decoded_payload ask(bus_client::proxy& service, std::uint8_t cmd, const KXmessage& request);

  bus_client& m_client;
  time_point m_until;
  bus_client::proxy m_directory;
  bus_client::proxy m_stats;
};

// Those rows of two tables that have the same key, with the columns of both.
core_services::rows joined(core_services::rows left, const core_services::rows& right, const char* key);

// Subscribes; throws failure when the core tells nothing.
bus_client::proxy subscribe_to_core(bus_client& client, const std::string& service, bool is_signal,
                                    bus_client::time_point until);

#endif
