#include "parts.h"

#include <unistd.h>

#include <csignal>

#include "board.h"

std::string numbered(const char* role, int number) { return role + std::to_string(number); }

void subscribe(KXproxy& proxy, const std::string& service, KXconnection::interface_type_e type) {
  for (;;) {
    try {
      proxy.subscribe_service(service.c_str(), type, nullptr);
      return;
    } catch (const KXerror::error_e&) {
      usleep(turn_us);
    }
  }
}

signal_storm::signal_storm() {
  struct sigaction action = {};  // without SA_RESTART: calls come back
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGUSR1;
  const itimerspec often = {{0, 1'000'000}, {0, 1'000'000}};
  timer_create(CLOCK_MONOTONIC, &event, &m_timer);
  timer_settime(m_timer, 0, &often, nullptr);
}
