// Senders, registered or not, whose messages are not accepted: what is told about them, and to strangers.
#ifndef STRANGERS_H
#define STRANGERS_H

#include <string>

#include "inbox.h"
#include "peer.h"
#include "reporter.h"
#include "socket_file.h"
#include "unique_fd.h"

class strangers {
 public:
  // Throws std::system_error.
  strangers(reporter& report, std::string bus_directory);

  // Whether this is a plain path below the bus directory.
  bool is_on_bus(const std::string& path) const;

  // Sends a stranger an answer, if there is room in its socket; should it never read, that is at nobody's
  // cost. In such an interval so many are answered, so that a flood of them does not cost the others. The
  // socket at the path must belong to the user who asks: what somebody else asks for could be taken for an
  // answer there.
  static constexpr unsigned int max_answers = 512;
  static constexpr unsigned int answers_interval_ms = 100;
  void answer(const sender& to, const KXmessage& message);

  // Takes note of a message that is not served. `from` is null when the sender is not registered, `message`
  // when it is malformed.
  void drop(peer* from, const sender& origin, const char* reason, const KXmessage* message = nullptr);

  // Shows monitors such a message, null when it is malformed.
  void show(record_event_e event, const peer* from, const sender& origin, const KXmessage* message,
            std::string_view reason = {});

  // The tally, and the name for a line, of a component, or of a sender that is not registered.
  tally& tally_of(peer* from) { return from != nullptr ? from->of_its_own : m_tally; }
  static std::string name_of(const peer* from, const sender& origin);

 private:
  bool may_answer();
  void send(const socket_file& to, const KXmessage& message);
  bool offer(const socket_file& to, const KXmessage& message) const;
  bool has_much_unread() const;

  reporter& m_report;
  const std::string m_bus_directory;  // ends in a slash
  unique_fd m_socket;
  unique_fd m_spare;            // for looking at a file when there are no descriptors left
  unsigned int m_interval = 0;  // the number of the present one
  unsigned int m_answers_left = max_answers;
  tally m_tally;
};

// Whether a character cannot stand in a line of the log.
bool is_control(unsigned char c);

#endif
