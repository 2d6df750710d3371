// What the verbs that use the bus do; their command line is in commands.cpp.
#ifndef KXCTL_BUS_VERBS_H
#define KXCTL_BUS_VERBS_H

#include <string>
#include <vector>

#include "bus_client.h"
#include "shell.h"

// A service and a message for it, as they stand on the command line: SERVICE[:CMD] [SIGNATURE VALUE...].
struct outgoing {
  std::string service;
  std::string command;  // a number, or the name that the service's description gives it; "" for 0
  KXmessage payload;

  // Throws failure when the words are not as they should be.
  explicit outgoing(const std::vector<std::string>& words);

  std::uint8_t cmd(bus_client& client, bus_client::time_point until) const;
};

struct serve_options {
  std::string service;
  std::vector<std::string> command;
  std::string signature = "s";  // of the answers
  unsigned int jobs = 8;        // that run side by side
};

struct wait_options {
  std::string name;
  bool is_component = false;
  bool gone = false;
};

// `until` is the end of a stream.
void call(const options& given, const outgoing& what);
void send(const options& given, const outgoing& what);
void emit(const options& given, const outgoing& what, bool waits);
void listen(const options& given, const std::vector<std::string>& services, bus_client::time_point until);
void serve(const options& given, const serve_options& what, bus_client::time_point until);
void wait(const options& given, const wait_options& what);

// A message as an object for --json, or as text: its signature and values.
nlohmann::json json_of(const KXmessage& message);
std::string text_of(const KXmessage& message);

#endif
