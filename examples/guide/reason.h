// Why a component did not start, for whoever started it.
#ifndef GUIDE_REASON_H
#define GUIDE_REASON_H

#include <cerrno>
#include <cstring>

#include "KXerror.h"

inline const char* reason_of(KXerror::error_e error) {
  if (error == KXerror::ERR_SOCKET_BIND) return strerror(errno);
  return "kxcore refuses: does nobody offer the service, or somebody else?";
}

#endif
