// Shows: the main function of a component, which both programs share.
#ifndef SYSMON_PROGRAM_H
#define SYSMON_PROGRAM_H

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "KXclientComponent.h"

// Runs `Application`, an object around the component `name`, until it is told to end; the process's exit
// status. The log lines go to standard error, too, where the user of a development machine sees them.
template <typename Application>
int run(const char* name, const char* help, int argc, char** argv) {
  if (argc > 1) {
    const bool asked = std::strcmp(argv[1], "--help") == 0;
    std::fputs(help, asked ? stdout : stderr);
    return asked ? 0 : 2;
  }
  openlog(name, LOG_PID | LOG_PERROR, LOG_DAEMON);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // by line, into a pipe as well
  if (access("/tmp/kxcore/kxcore", F_OK) != 0) std::puts("waiting for kxcore ...");
  try {
    KXclientComponent component(name);
    Application application(component);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    if (error == KXerror::ERR_SOCKET_BIND) {
      std::fprintf(stderr, "%s: cannot bind its sockets in /tmp/kxcore: %s\n", name, strerror(errno));
    } else {
      std::fprintf(stderr, "%s: kxcore refused a request (error %d)\n", name, error);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
  }
  return 1;
}

#endif
