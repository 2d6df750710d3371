// Messages as the arrows of a sequence diagram.
#ifndef KXCTL_SEQUENCE_H
#define KXCTL_SEQUENCE_H

#include <cstdint>
#include <string>
#include <vector>

#include "names.h"
#include "view.h"

struct arrow {
  enum kind_e { REQUEST, ANSWER, ERROR_ANSWER, SIGNAL, FAILURE };  // the last never reaches its receiver

  std::uint64_t time_ns;
  std::size_t from;  // participants
  std::size_t to;
  kind_e kind;
  std::string label;  // printable, in full
};

class sequence {
 public:
  explicit sequence(names& known) : m_names(known) {}

  // What is of no message is left out.
  void add(const sight& seen);

  const std::vector<std::string>& participants() const { return m_participants; }  // in order of appearance
  const std::vector<arrow>& arrows() const { return m_arrows; }

 private:
  std::size_t participant(std::string_view name);
  std::string label_of(const sight& seen) const;

  names& m_names;
  std::vector<std::string> m_participants;
  std::map<std::string, std::size_t> m_places;
  std::vector<arrow> m_arrows;
};

#endif
