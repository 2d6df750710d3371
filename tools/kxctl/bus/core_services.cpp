#include "core_services.h"

#include <algorithm>

namespace {

using nlohmann::json;

struct column {
  const char* name;
  const char* type;
};
using columns = std::vector<column>;

// A page begins with the generation of the table, and whether there is more.
constexpr char page_head[] = "ub";
constexpr std::size_t head_size = 2;

enum directory_cmd_e : std::uint8_t { COMPONENTS = 1, SERVICES, USERS, DESCRIPTION };
enum stats_cmd_e : std::uint8_t { COMPONENT_COUNTERS = 1, SERVICE_COUNTERS, REASONS };

// The strings stay as they are, whatever their bytes.
json as_json(const value& of) {
  return std::visit([](const auto& content) { return json(content); }, of.content);
}

std::string types_of(const columns& of) {
  std::string types;
  for (const column& each : of)
    types += each.type;
  return types;
}

[[noreturn]] void misunderstand(const std::string& signature) {
  throw failure(NO_INTROSPECTION, "kxcore tells about the bus in another form, " + signature +
                                      ": it and kxctl are not of one version");
}

void check(const std::string& signature, const std::string& row) {
  std::string expected = page_head;
  while (expected.size() < signature.size())
    expected += row;
  if (expected != signature) misunderstand(signature);
}

}  // namespace

struct core_services::table {
  bus_client::proxy core_services::*service;
  std::uint8_t cmd;
  bool is_of_one;  // of a component or service, which the request names in front
  columns row;
};

core_services::core_services(bus_client& client, time_point until)
    : m_client(client),
      m_until(until),
      m_directory(subscribe_to_core(client, "kxcore.directory", false, until)),
      m_stats(subscribe_to_core(client, "kxcore.stats", false, until)) {}

core_services::rows core_services::components() {
  return read({&core_services::m_directory,
               COMPONENTS,
               false,
               {{"component", "s"},
                {"name", "s"},
                {"pid", "u"},
                {"uid", "u"},
                {"since", "t"},
                {"management_socket", "s"},
                {"data_socket", "s"},
                {"services", "u"},
                {"uses", "u"}}});
}

core_services::rows core_services::services() {
  return read({&core_services::m_directory,
               SERVICES,
               false,
               {{"service", "s"},
                {"kind", "u"},
                {"siid", "u"},
                {"subscribers_siid", "u"},
                {"component", "s"},
                {"users", "u"}}});
}

core_services::rows core_services::users(const std::string& service) {
  return read({&core_services::m_directory, USERS, true, {{"component", "s"}, {"proxies", "u"}}}, service);
}

core_services::rows core_services::component_counters() {
  return read({&core_services::m_stats,
               COMPONENT_COUNTERS,
               false,
               {{"component", "s"},
                {"sent", "t"},
                {"sent_bytes", "t"},
                {"received", "t"},
                {"received_bytes", "t"},
                {"refused", "t"},
                {"dropped", "t"},
                {"lost", "t"},
                {"queued_bytes", "u"},
                {"most_queued_bytes", "u"},
                {"unread_bytes", "u"},
                {"grants", "u"}}});
}

core_services::rows core_services::service_counters() {
  return read({&core_services::m_stats,
               SERVICE_COUNTERS,
               false,
               {{"service", "s"}, {"requests", "t"}, {"responses", "t"}, {"errors", "t"}, {"signals", "t"}}});
}

core_services::rows core_services::reasons(const std::string& component) {
  return read({&core_services::m_stats, REASONS, true, {{"reason", "s"}, {"times", "t"}}}, component);
}

json core_services::description(const std::string& service) {
  KXmessage request;
  request << service;
  const decoded_payload answer = ask(m_directory, DESCRIPTION, request);
  if (answer.signature() != "ss") misunderstand(answer.signature());
  return {{"comment", as_json(answer.values[0])}, {"class", as_json(answer.values[1])}};
}

core_services::rows core_services::read(const table& which, const std::string& of) {
  rows result;
  std::string after;
  do {
    KXmessage request;
    if (which.is_of_one) request << of;
    request << after;
    after = read_page(which, request, result);
  } while (!after.empty());
  return result;
}

// Appends the rows of a page; the last key when there are more behind it, else "".
std::string core_services::read_page(const table& which, const KXmessage& request, rows& to) {
  const decoded_payload page = ask(this->*which.service, which.cmd, request);
  check(page.signature(), types_of(which.row));
  for (std::size_t next = head_size; next < page.values.size();) {
    json row;
    for (const column& each : which.row)
      row[each.name] = as_json(page.values[next++]);
    to.push_back(std::move(row));
  }
  const bool is_more = std::get<bool>(page.values[1].content);
  if (is_more && page.values.size() == head_size) misunderstand("a page without rows");
  return is_more ? to.back()[which.row.front().name].get<std::string>() : std::string();
}

decoded_payload core_services::ask(bus_client::proxy& service, std::uint8_t cmd, const KXmessage& request) {
  const KXmessage answer = m_client.call(service, cmd, request, m_until);
  if (answer.m_header->msg_type == MSG_ERR) throw failure(REFUSED, reason_of(answer));
  return decode(answer);
}

core_services::rows joined(core_services::rows left, const core_services::rows& right, const char* key) {
  const auto is_before = [key](const json& one, const json& other) { return one[key] < other[key]; };
  core_services::rows result;
  for (json& each : left) {
    const auto same = std::lower_bound(right.begin(), right.end(), each, is_before);
    if (same == right.end() || is_before(each, *same)) continue;  // it has come or gone in between
    each.update(*same);
    result.push_back(std::move(each));
  }
  return result;
}

bus_client::proxy subscribe_to_core(bus_client& client, const std::string& service, bool is_signal,
                                    bus_client::time_point until) {
  try {
    return client.subscribe(service, is_signal, until);
  } catch (const failure& error) {
    if (error.status != REFUSED) throw;
    throw failure(NO_INTROSPECTION, std::string("this kxcore does not tell about the bus: ") + error.what());
  }
}
