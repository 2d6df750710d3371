// Paths and socket addresses.
#ifndef SOCKET_ADDRESS_H
#define SOCKET_ADDRESS_H

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

constexpr char bus_path[] = "/tmp/kxcore/";

constexpr std::size_t max_socket_path = sizeof(sockaddr_un::sun_path) - 1;

// The address of the socket at `path`, of which no more is taken than fits.
inline sockaddr_un socket_address(std::string_view path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), max_socket_path));
  return address;
}

// The path of a sender, as a C string: what the system wrote into its address, up to the first NUL, and never
// more than the field holds, which need not end in one. Empty for a sender without a name.
struct sender_path {
  char text[sizeof(sockaddr_un::sun_path) + 1] = {};

  sender_path(const sockaddr_un& address, std::size_t length) {
    constexpr std::size_t path_offset = offsetof(sockaddr_un, sun_path);
    if (length <= path_offset) return;
    std::memcpy(text, address.sun_path, std::min(length - path_offset, sizeof address.sun_path));
  }
};

#endif
