// What of the bus is to be seen. Terms with a space between, all of which must hold; in each, values with a
// comma between, one of which must be; "!" in front of a term, or of its "=", says not:
//   service=sysmon.* component=watch type=REQ,ERR cmd=1 id=0x1001 event!=refused mgmt
// "mgmt" is what makes the bus what it is: management messages, and events.
#ifndef KXCTL_FILTER_H
#define KXCTL_FILTER_H

#include <functional>
#include <string>
#include <vector>

#include "entry.h"

class filter {
 public:
  // Throws failure with status USAGE when the terms have no meaning. Without terms everything matches that is
  // of a message, or an event; the state of the bus and marks must be asked for by their names.
  explicit filter(const std::vector<std::string>& terms);

  bool matches(const entry& what) const;

  // Patterns for what the core leaves out by itself: no more than matches() does. "" for nothing.
  const std::string& components() const { return m_components; }
  const std::string& services() const { return m_services; }

 private:
  using test_t = std::function<bool(const entry&)>;

  void add(const std::string& term);
  void add(const std::string& key, const std::vector<std::string>& values, bool negated);

  std::vector<test_t> m_tests;
  bool m_asks_for_events = false;
  std::string m_components;
  std::string m_services;
};

#endif
