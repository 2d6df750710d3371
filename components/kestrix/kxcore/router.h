// Carries data messages to the components that they are for.
//
// A message goes by its destination siid; its source siid must be the sender's. A signal that a stub sends to
// its own siid goes to all its subscribers, once to each component. No component can answer for another:
//
// - A proxy gets messages from its own service only, as many as that sends.
// - A stub gets MSG_RSP and MSG_ERR as the answer to a request of its own only, once.
// - A message whose id lies in a range that was granted to the receiving component for something else could
// be
//   taken for an answer there, and is refused. A signal goes to its subscribers with the id 0 instead.
//
// A request that cannot be delivered is answered with an error, anything else is dropped.
#ifndef ROUTER_H
#define ROUTER_H

#include "inbox.h"
#include "reporter.h"
#include "roster.h"
#include "strangers.h"

class router {
 public:
  router(roster& peers, strangers& outsiders, reporter& report);

  void serve(const sender& from, KXmessage& message);

 private:
  void refuse_stranger(const sender& from, const KXmessage& message);
  void route(peer& from, KXmessage& message);
  const char* check(const peer& from, const KXmessage& message, const endpoint& to, peer& receiver) const;
  bool is_id_of(const peer& receiver, const peer& from, const open_request& way) const;
  void fan_out(peer& from, KXmessage& message, service& signal);
  static void count(service& of, const KXmessage& message);
  const char* forward(peer& from, const KXmessage& message, peer& to);
  void refuse(peer& from, const KXmessage& message, const char* reason);
  void miss(peer& from, const KXmessage& message, const char* reason);
  void fail(peer& from, const KXmessage& message, const char* reason);

  roster& m_peers;
  strangers& m_strangers;
  reporter& m_report;
};

#endif
