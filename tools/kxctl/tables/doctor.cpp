// What is wrong on this machine, and what to do about it.
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>

#include "checks.h"
#include "printable.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

constexpr auto second_look = std::chrono::milliseconds(200);

struct level_facts {
  const char* name;
  const char* colour;
};
constexpr std::array<level_facts, 3> levels = {
    {{"ok", "\x1B[32m"}, {"WARN", "\x1B[33m"}, {"FAIL", "\x1B[31m"}}};

void check_machine(findings& found) {
  const std::string directory = bus_client::directory;
  check_directory(directory.substr(0, directory.size() - 1), found);
  check_stale_sockets(directory, found);
  check_names("/proc/net/unix", found);
  check_queue_length("/proc/sys/net/unix/max_dgram_qlen", found);
  check_kernel(found);
}

// Whether the core answers, and within what time.
std::unique_ptr<bus_client> check_core(const options& given, findings& found) {
  try {
    const auto begun = steady::now();
    auto client = std::make_unique<bus_client>(given.deadline());
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - begun);
    found.push_back({finding::OK, "kxcore answers in " + std::to_string(took.count()) + " us", ""});
    if (client->core_pid() > 0) check_descriptors("/proc/" + std::to_string(client->core_pid()), found);
    return client;
  } catch (const failure& error) {
    if (error.status == INTERRUPTED) throw;
    found.push_back({finding::FAIL, error.what(), ""});
    return nullptr;
  }
}

void check_components(session& bus, findings& found) {
  const session::rows before = bus.components();
  bus.client.rest(steady::now() + second_look);
  const session::rows components = bus.components();
  check_readers(before, components, found);
  check_grants(components, found);
  std::vector<refusals> all = {{"a program that was not registered", bus.core.reasons("")}};
  for (const auto& each : components)
    if (each["refused"] != 0) all.push_back({each["component"], bus.core.reasons(each["component"])});
  check_wishes(all, bus.services(), found);
}

void check_bus(bus_client& client, const options& given, findings& found) {
  try {
    session bus(client, given);
    check_components(bus, found);
  } catch (const failure& error) {
    if (error.status == INTERRUPTED) throw;
    if (error.status != NO_INTROSPECTION) return found.push_back({finding::FAIL, error.what(), ""});
    found.push_back({finding::WARN, error.what(), "the components cannot be looked at: see kxcore(8)"});
  }
}

std::string text_of(const finding& each) {
  const level_facts& level = levels.at(each.level);
  std::string text = padded(level.name, 4);
  if (is_coloured()) text = level.colour + text + "\x1B[0m";
  text += "  " + printable(each.what) + "\n";
  if (!each.advice.empty()) text += "      " + each.advice + "\n";
  return text;
}

std::string shown(const findings& found, bool as_json) {
  std::string text;
  nlohmann::json array = nlohmann::json::array();
  for (const finding& each : found) {
    array.push_back({{"level", levels.at(each.level).name}, {"what", each.what}, {"advice", each.advice}});
    text += text_of(each);
  }
  return as_json ? dump({{"findings", array}}) + "\n" : text;
}

}  // namespace

void doctor(const options& given) {
  findings found;
  const std::unique_ptr<bus_client> client = check_core(given, found);
  check_machine(found);
  if (client != nullptr) check_bus(*client, given, found);
  write_out(shown(found, given.json));
  for (const finding& each : found)
    if (each.level == finding::FAIL) throw failure(REFUSED, "");
}
