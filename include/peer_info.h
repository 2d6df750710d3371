#ifndef KX_PEER_INFO_H
#define KX_PEER_INFO_H

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "KXexport.h"

/// The sender's address of a received datagram.
struct KX_EXPORT peer_info_t {
  struct sockaddr_un addr;  ///< family and path; the path need not end in a NUL when it fills the field
  socklen_t addrlen;        ///< length of `addr` as the system gave it; 0 or 2 for a sender without a name
  int rx_len;               ///< result of the last receive: bytes received, or -1

  /// Family AF_UNIX, full length; the path is not cleared.
  peer_info_t();

  /// Sets the path of `addr`; family and `addrlen` stay.
  /// @return 0, or -1 without any change when `p` is longer than 107 characters
  int path(std::string& p);
};

#endif
