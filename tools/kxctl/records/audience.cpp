#include "audience.h"

#include "shell.h"

bool audience::take(std::string_view record) {
  const std::optional<entry> parsed = entry::parse(record);
  if (!parsed) {
    ++m_unreadable;
    return true;
  }
  m_lost += parsed->head.lost;
  m_all_lost += parsed->head.lost;
  m_names.learn(*parsed);
  const exchanges::step step =
      m_exchanges.follow(*parsed);  // of all: an answer may be wanted without its request
  if (!m_wanted.matches(*parsed) || is_ignored(*parsed)) return true;
  m_view.show({*parsed, step, m_lost});
  m_lost = 0;
  return m_count == 0 || ++m_shown != m_count;
}

// Before it is registered, a component is known by the path of its socket, in brackets.
bool audience::is_ignored(const entry& what) const {
  if (m_ignored.empty()) return false;
  return what.head.sender == m_ignored || what.head.receiver == m_ignored ||
         what.head.sender == "[/tmp/kxcore/" + m_ignored + "]";
}

void audience::finish() { m_view.finish(); }

void audience::complain() const {
  if (m_unreadable > 0)
    throw failure(REFUSED, std::to_string(m_unreadable) + " packets are no records of version " +
                               std::to_string(record_version));
}
