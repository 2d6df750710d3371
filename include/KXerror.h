#ifndef KXERROR_H
#define KXERROR_H

#include "KXexport.h"

/// What the library throws, by value: `catch (const KXerror::error_e& error)`.
struct KX_EXPORT KXerror {
  /// What went wrong.
  enum KX_EXPORT error_e : int {
    ERR_SIID_PRESENT = 1,  ///< a siid was granted to a second connection that is not a signal connection
    ERR_SOCKET_BIND = 2,   ///< a socket of the component could not be created or bound
    ERR_ERROR_REPLY = 3    ///< kxcore refused a management request
  };
};

#endif
