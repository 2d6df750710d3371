// The counters of the core, for people and for Prometheus.
#include "columns.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using nlohmann::json;

struct counter {
  const char* column;  // its heading
  const char* key;
  const char* metric;
  const char* type;
  const char* help;
};

struct group {
  const char* key;  // of the name of a row
  const char* heading;
  std::vector<counter> counters;
};

const group of_components = {
    "component",
    "COMPONENT",
    {{">SENT", "sent", "sent_messages_total", "counter", "Data messages that it sent"},
     {">BYTES", "sent_bytes", "sent_bytes_total", "counter", "Bytes of these"},
     {">RECEIVED", "received", "received_messages_total", "counter", "Data messages that reached its socket"},
     {">BYTES", "received_bytes", "received_bytes_total", "counter", "Bytes of these"},
     {">REFUSED", "refused", "refused_total", "counter", "Management requests and notices that were refused"},
     {">DROPPED", "dropped", "dropped_messages_total", "counter", "Messages of it that were dropped"},
     {">LOST", "lost", "lost_messages_total", "counter", "Messages to it for which there was no room"},
     {">QUEUED", "queued_bytes", "queued_bytes", "gauge", "Bytes that wait for it in the core"},
     {">MOST", "most_queued_bytes", "most_queued_bytes", "gauge",
      "The most bytes that waited for it in the core"},
     {">UNREAD", "unread_bytes", "unread_bytes", "gauge", "Bytes unread in its socket"},
     {">GRANTS", "grants", "grants", "gauge", "Services and subscriptions that it holds, at most 1024"}}};

const group of_services = {
    "service",
    "SERVICE",
    {{">REQUESTS", "requests", "requests_total", "counter", "Requests that were delivered"},
     {">RSP", "responses", "responses_total", "counter", "Responses of it"},
     {">ERR", "errors", "errors_total", "counter", "Errors of it"},
     {">SIGNALS", "signals", "signals_total", "counter", "Signals of it"}}};

std::string table_text(const options& given, const group& which, const session::rows& rows) {
  columns::row names = {which.heading};
  for (const counter& each : which.counters)
    names.emplace_back(each.column);
  columns table(names);
  for (const json& row : rows) {
    columns::row cells = {cell(row, which.key)};
    for (const counter& each : which.counters)
      cells.push_back(short_number(static_cast<double>(number(row, each.key))));
    table.add(std::move(cells));
  }
  return table.text(given);
}

// In the quotes of the exposition format, which is UTF-8.
std::string label_of(const json& row, const char* key) {
  std::string text;
  for (const char c : cell(row, key))
    text += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
  return std::string("{") + key + "=\"" + text + "\"}";
}

std::string metrics_text(const group& which, const session::rows& rows) {
  std::string text;
  for (const counter& each : which.counters) {
    const std::string name = std::string("kestrix_") + which.key + "_" + each.metric;
    text.append("# HELP ").append(name).append(" ").append(each.help);
    text.append("\n# TYPE ").append(name).append(" ").append(each.type).append("\n");
    for (const json& row : rows)
      text.append(name).append(label_of(row, which.key)).append(" ").append(cell(row, each.key)).append("\n");
  }
  return text;
}

}  // namespace

void stats(const options& given, bool prometheus) {
  bus_client client(given.deadline());
  session bus(client, given);
  const session::rows components = bus.components();
  const session::rows services = bus.core.service_counters();
  if (given.json) return write_out(dump({{"components", components}, {"services", services}}) + "\n");
  const auto text = [&](const group& which, const session::rows& rows) {
    return prometheus ? metrics_text(which, rows) : table_text(given, which, rows);
  };
  write_out(text(of_components, components) + (prometheus ? "" : "\n") + text(of_services, services));
}
