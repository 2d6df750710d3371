// What the verb replay does; its command line is in commands.cpp.
#ifndef KXCTL_REPLAY_H
#define KXCTL_REPLAY_H

#include <string>
#include <vector>

#include "bus_client.h"
#include "replay/recorded_calls.h"
#include "shell.h"

struct replay_options {
  std::string file;
  std::string service;
  std::vector<std::string> filter;
  std::string as = "client";
  double rate = 1;  // times as fast as it was; 0: without waiting
  bool step = false;
  bool expect = false;
  std::vector<std::string> ignore;
};

// Sends the recorded requests again, each when the one before is answered, and compares the answers.
void replay_as_client(const options& given, const replay_options& what, const recorded_calls& recorded);

// Offers the service, and answers its requests as they were answered; or sends its signals again. `until` is
// the end of the stream.
void replay_as_server(const options& given, const replay_options& what, const recorded_calls& recorded,
                      bus_client::time_point until);

#endif
