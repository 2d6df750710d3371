// What a service tells about itself: the names of its commands, and of the values that they carry.
#ifndef KXCTL_DESCRIPTION_H
#define KXCTL_DESCRIPTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class description {
 public:
  struct field {
    std::string name;
    std::string type;
    std::string unit;  // "" for none
  };

  struct command {
    std::uint8_t cmd;
    std::string name;
    bool is_signal;
    std::vector<field> in;   // of the request
    std::vector<field> out;  // of the answer, or the signal
  };

  // Reads what a stub has sent as its comment; nothing when that does not have the form of
  // docs/introspection.md. A part that the form does not have is passed over.
  static std::optional<description> parse(const std::string& xml);

  const std::vector<command>& commands() const { return m_commands; }

  // Null when it is not described.
  const command* find(std::uint8_t cmd, bool is_signal) const;

 private:
  std::vector<command> m_commands;
};

#endif
