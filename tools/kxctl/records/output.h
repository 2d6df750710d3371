// How the verbs for records write, and end.
#ifndef KXCTL_OUTPUT_H
#define KXCTL_OUTPUT_H

#include <cstdint>
#include <sstream>

#include "monitor_client.h"

// Standard output, to which is written when there is enough, or when it is said. Throws failure when it takes
// no more.
class output {
 public:
  std::ostream& stream() { return m_stream; }
  void flush();
  void flush_if_long();

 private:
  std::ostringstream m_stream;
};

void tell_losses(std::uint64_t lost);

// Throws the failure that makes the exit status, unless there was enough.
void end_as(monitor_client::end_e end);

#endif
