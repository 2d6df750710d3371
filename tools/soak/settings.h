// What a soak consists of, and what it fails for, as the command line says.
#ifndef SETTINGS_H
#define SETTINGS_H

#include <random>

struct settings {
  long requests = 1'000'000;
  int components = 100;  // all of them, those below among them
  int stopped = 20;
  int killed = 10;
  int flooding = 5;
  int strangers = 0;    // sockets that flood without being a component's
  bool timed = true;    // fails when a request waits too long
  bool weighed = true;  // fails when memory grows
  unsigned int seed = std::random_device()();
};

#endif
