// Carries data messages to the components that they are for.
//
// A message goes by its destination siid; its source siid must be the sender's. A signal that a stub sends to
// its own siid goes to all its subscribers, once to each component. No component can answer for another:
//
// - MSG_RSP and MSG_ERR reach a proxy from its own service only, as many as that sends, and a stub only once,
// as
//   the answer to a request of its own.
// - Any other message whose id lies in a range that was granted to the receiving component could be taken for
// such
//   an answer there, and is refused. To subscribers such a message goes with the id 0 instead.
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

  // Nothing is left to serve: strangers are answered again.
  void rest() { m_answers_left = answers_at_once; }

 private:
  // A flood of strangers' requests gets so many answers, and no more before the core has served it.
  static constexpr unsigned int answers_at_once = 256;

  void refuse_stranger(const sender& from, const KXmessage& message);
  void route(peer& from, KXmessage& message);
  const char* check_answer(peer& receiver, const open_request& way, endpoint::role_e role);
  const char* check_id(const peer& from, const peer& receiver, std::uint32_t msg_id);
  void fan_out(peer& from, KXmessage& message, const service& signal);
  const char* forward(peer& from, const KXmessage& message, peer& to);
  void refuse(peer& from, const KXmessage& message, const char* reason);
  void miss(peer& from, const KXmessage& message, const char* reason);

  roster& m_peers;
  strangers& m_strangers;
  reporter& m_report;
  unsigned int m_answers_left = answers_at_once;
};

#endif
