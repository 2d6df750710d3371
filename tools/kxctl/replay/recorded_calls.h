// What a recording holds of one service: the requests to it with their answers, and its signals.
#ifndef KXCTL_RECORDED_CALLS_H
#define KXCTL_RECORDED_CALLS_H

#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "entry.h"
#include "filter.h"
#include "values.h"

struct recorded_answer {
  std::uint8_t type;  // MSG_RSP or MSG_ERR
  std::string payload;
  std::uint64_t took_ns;  // from the request on
};

struct recorded_call {
  std::uint8_t type;  // MSG_REQ, or MSG_SIG for what is not answered
  std::uint8_t cmd;
  std::string payload;
  std::uint64_t time_ns;
  std::optional<recorded_answer> answer{};
};

class recorded_calls {
 public:
  // Throws failure where the recording is broken.
  recorded_calls(std::istream& from, const std::string& name, const std::string& service,
                 const filter& wanted);

  const std::vector<recorded_call>& calls() const { return m_calls; }

  // What the service sent to its subscribers; it is a signal then.
  const std::vector<recorded_call>& signals() const { return m_signals; }

 private:
  using key_t = std::tuple<std::string, std::uint32_t, std::uint32_t, std::uint32_t>;

  void note(const entry& what, bool is_wanted);
  void learn_owner(const entry& what);
  void learn_from_rows(const entry& what);
  bool is_of_owner(const entry& signal) const;
  void add_call(const entry& what);
  void add_answer(const entry& what);
  void add_signal(const entry& what);

  const std::string m_service;
  std::string m_owner{};  // the component that offers it, "" while that is not known
  std::vector<recorded_call> m_calls{};
  std::vector<recorded_call> m_signals{};
  std::map<key_t, std::size_t> m_open{};  // calls without an answer, by client, siids and id
  std::uint64_t m_last_signal_ns = 0;
};

// A payload from a recording.
decoded_payload decode(const std::string& payload);
KXmessage message_with(const std::string& payload);

#endif
