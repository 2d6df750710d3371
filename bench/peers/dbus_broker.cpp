#include "dbus_broker.h"

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support.h"

namespace {

int bound(const char* path, int type) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, type, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    bench::fail("cannot bind %s", path);
  return fd;
}

void make_journal() {
  mkdir("/run/systemd", 0755);
  if (mount("none", "/run/systemd", "tmpfs", 0, nullptr) != 0)
    bench::fail("cannot mount a private /run/systemd");
  mkdir("/run/systemd/journal", 0755);
  bound("/run/systemd/journal/socket", SOCK_DGRAM);
}

}  // namespace

void become_dbus_broker(const char* socket_path, const char* configuration_path) {
  constexpr int first_inherited = 3;
  const int listening = bound(socket_path, SOCK_STREAM);
  if (listen(listening, SOMAXCONN) != 0 || dup2(listening, first_inherited) < 0)
    bench::fail("cannot listen at %s", socket_path);
  make_journal();
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", (std::string("unix:path=") + socket_path).c_str(), 1);
  execlp("dbus-broker-launch", "dbus-broker-launch", "--scope", "user", "--config-file", configuration_path,
         nullptr);
  bench::fail("cannot start dbus-broker-launch");
}
