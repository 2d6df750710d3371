// The bus as the core tells it, without this program's own part in it.
#ifndef KXCTL_SESSION_H
#define KXCTL_SESSION_H

#include "bus_client.h"
#include "core_services.h"
#include "shell.h"

class session {
 public:
  using rows = core_services::rows;

  session(bus_client& through, const options& given);

  bus_client& client;
  core_services core;

  // With their counters.
  rows components();

  // Their kind in words: "sync", "async" or "signal".
  rows services();

  // Services with who uses them, "used_by", and components with what they offer and use, "offers" and "uses".
  struct relations {
    rows components, services;
  };
  relations all();
};

#endif
