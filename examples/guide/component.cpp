// The smallest component: it takes its place on the bus, runs its event loop, and leaves when it is told to
// end.
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "KXclientComponent.h"

int main() {
  openlog("guide-component", LOG_PID | LOG_PERROR, LOG_DAEMON);
  try {
    KXclientComponent component("guide-component");
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    const char* const reason = error == KXerror::ERR_SOCKET_BIND ? strerror(errno) : "kxcore refuses";
    std::fprintf(stderr, "guide-component: %s\n", reason);
    return 1;
  }
}
