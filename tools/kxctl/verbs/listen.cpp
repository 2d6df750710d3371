// Signals, as they come.
#include <time.h>

#include <array>
#include <map>

#include "printable.h"
#include "standard_output.h"
#include "verbs/verbs.h"

namespace {

timespec now() {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

std::string clock_text(const timespec& time) {
  tm local = {};
  localtime_r(&time.tv_sec, &local);
  std::array<char, 32> text{};
  const std::size_t length = strftime(text.data(), text.size(), "%H:%M:%S", &local);
  std::snprintf(text.data() + length, text.size() - length, ".%06ld", time.tv_nsec / 1000);
  return text.data();
}

std::string line_of(const options& given, const std::string& service, const KXmessage& signal) {
  const timespec time = now();
  if (!given.json)
    return clock_text(time) + " " + printable(service) + ":" + std::to_string(signal.m_header->cmd) + " " +
           text_of(signal);
  nlohmann::json object = json_of(signal);
  object["service"] = service;
  object["time"] = std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  return dump(object);
}

}  // namespace

void listen(const options& given, const std::vector<std::string>& services, bus_client::time_point until) {
  const auto begun = given.deadline();
  bus_client client(begun);
  std::map<std::uint32_t, std::string> subscribed;
  for (const std::string& service : services)
    subscribed[client.subscribe(service, true, begun).siid] = service;
  KXmessage signal;
  for (unsigned long shown = 0; given.count == 0 || shown < given.count;) {
    if (!client.receive(signal, until)) throw failure(TIMED_OUT, "");
    const auto service = subscribed.find(ntohl(signal.m_header->dst_siid));
    if (service == subscribed.end()) continue;
    write_out(line_of(given, service->second, signal) + "\n");
    ++shown;
  }
}
