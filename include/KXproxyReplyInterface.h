#ifndef KXPROXYREPLYINTERFACE_H
#define KXPROXYREPLYINTERFACE_H

#include "KXexport.h"

class KXmessage;

/// Receives the responses of an asynchronous service.
///
/// Handed to KXproxy::subscribe_asynchronous, which stores the pointer and leaves its use to the application:
/// the proxy's process_message calls process_reply. The caller keeps ownership.
class KX_EXPORT KXproxyReplyInterface {
 public:
  virtual ~KXproxyReplyInterface() = default;

  /// Runs on the thread of the event loop; `message` is the response, read cursor at the start of its
  /// payload.
  virtual void process_reply(KXmessage& message) = 0;
};

#endif
