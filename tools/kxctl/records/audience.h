// Takes records as they come, and shows those that are wanted.
#ifndef KXCTL_AUDIENCE_H
#define KXCTL_AUDIENCE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "exchanges.h"
#include "filter.h"
#include "names.h"
#include "view.h"

class audience {
 public:
  // `count`: how many are wanted, 0 for all.
  audience(const filter& wanted, names& known, view& shown, unsigned long count)
      : m_wanted(wanted), m_names(known), m_view(shown), m_count(count) {}

  // What this component sends, gets or does is not shown.
  void ignore(const std::string& component) { m_ignored = component; }

  // False when those that are wanted have come.
  bool take(std::string_view record);

  // Nothing follows. Throws failure when something was no record.
  void finish();

  // Throws failure when something was no record.
  void complain() const;

  std::uint64_t lost() const { return m_all_lost; }

 private:
  bool is_ignored(const entry& what) const;

  const filter& m_wanted;
  names& m_names;
  view& m_view;
  const unsigned long m_count;
  std::string m_ignored{};
  exchanges m_exchanges{};
  unsigned long m_shown = 0;
  std::uint64_t m_lost = 0;  // since the record that was shown last
  std::uint64_t m_all_lost = 0;
  std::uint64_t m_unreadable = 0;
};

#endif
