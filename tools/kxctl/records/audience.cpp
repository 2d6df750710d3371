#include "audience.h"

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
  if (!m_wanted.matches(*parsed)) return true;
  m_view.show({*parsed, step, m_lost});
  m_lost = 0;
  return ++m_shown != m_count;
}

void audience::finish() {
  m_view.finish();
  if (m_unreadable > 0)
    throw failure(REFUSED, std::to_string(m_unreadable) + " packets are no records of version " +
                               std::to_string(record_version));
}
