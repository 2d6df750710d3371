// Names for the commands and values of messages, from the descriptions of services.
#ifndef KXCTL_NAMES_H
#define KXCTL_NAMES_H

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "description.h"
#include "entry.h"
#include "values.h"

class names {
 public:
  // Gets the description of a service, "" when there is none; is called once for each service.
  using fetch_t = std::function<std::string(const std::string& service)>;
  explicit names(fetch_t fetch = {});

  // Notes the description that an offer brings.
  void learn(const entry& from);

  // The name of its command, "" when it has none.
  std::string command_of(const entry& what);

  // The names and units of the first values: of those whose types are as described.
  std::vector<description::field> fields_of(const entry& what, const decoded_payload& payload);

 private:
  void learn_event(const entry& from);
  const description::command* find(const entry& what);

  fetch_t m_fetch;
  std::map<std::string, std::optional<description>> m_known;
  std::map<std::string, std::string> m_offered;  // descriptions of what is not granted yet
};

#endif
