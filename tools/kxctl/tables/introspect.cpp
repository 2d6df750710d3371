// What a service tells about itself.
#include "columns.h"
#include "core_services.h"
#include "description.h"
#include "printable.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using nlohmann::json;

std::string fields_text(const std::vector<description::field>& fields) {
  std::string text;
  for (const description::field& each : fields) {
    text += (text.empty() ? "" : ", ") + printable(each.name) + " " + printable(each.type);
    if (!each.unit.empty()) text += " [" + printable(each.unit) + "]";
  }
  return text;
}

json fields_json(const std::vector<description::field>& fields) {
  json array = json::array();
  for (const description::field& each : fields)
    array.push_back({{"name", each.name}, {"type", each.type}, {"unit", each.unit}});
  return array;
}

std::string table_text(const options& given, const description& told) {
  columns table({">CMD", "NAME", "KIND", "IN", "OUT"});
  for (const description::command& each : told.commands())
    table.add({std::to_string(each.cmd), printable(each.name), each.is_signal ? "signal" : "method",
               fields_text(each.in), fields_text(each.out)});
  return table.text(given);
}

json commands_json(const description& told) {
  json array = json::array();
  for (const description::command& each : told.commands())
    array.push_back({{"cmd", each.cmd},
                     {"name", each.name},
                     {"kind", each.is_signal ? "signal" : "method"},
                     {"in", fields_json(each.in)},
                     {"out", fields_json(each.out)}});
  return array;
}

// The comment as it is, but harmless for a terminal.
std::string raw_text(const std::string& comment) {
  if (comment.empty() || comment == "none") return "it tells nothing about its commands\n";
  std::string text;
  for (std::size_t begin = 0; begin <= comment.size();) {
    const std::size_t end = std::min(comment.find('\n', begin), comment.size());
    text += printable(comment.substr(begin, end - begin)) + "\n";
    begin = end + 1;
  }
  return text;
}

}  // namespace

void introspect(const options& given, const std::string& service) {
  bus_client client(given.deadline());
  json told = core_services(client, given.deadline()).description(service);
  const auto comment = told["comment"].get<std::string>();
  const auto known = description::parse(comment);
  if (given.json) {
    if (known) told["commands"] = commands_json(*known);
    return write_out(dump(told) + "\n");
  }
  const std::string head = given.no_header ? "" : "class " + cell(told, "class") + "\n";
  write_out(head + (known ? table_text(given, *known) : raw_text(comment)));
}
