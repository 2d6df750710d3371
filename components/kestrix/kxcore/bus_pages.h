// What the core tells about the bus, as rows of values, in pages that fit into a message
// (docs/introspection.md has the rows). A page begins behind a key, and takes as many rows as there is room
// for.
#ifndef BUS_PAGES_H
#define BUS_PAGES_H

#include <cstdint>
#include <string>

#include "roster.h"

class bus_pages {
 public:
  bus_pages(roster& peers, const reporter& report) : m_peers(peers), m_report(report) {}

  // Each writes one page into an empty message, and returns the key of its last row, or an empty text when
  // there are no more.
  std::string components(KXmessage& page, const std::string& after) const;
  std::string services(KXmessage& page, const std::string& after) const;
  std::string users(KXmessage& page, const service& of, const std::string& after) const;
  std::string component_counters(KXmessage& page, const std::string& after) const;
  std::string service_counters(KXmessage& page, const std::string& after) const;
  std::string reasons(KXmessage& page, const tally& of, const std::string& after) const;

 private:
  template <typename Iterator, typename Write>
  std::string write(KXmessage& page, Iterator first, Iterator end, Write write_row) const;

  roster& m_peers;
  const reporter& m_report;
};

#endif
