// Requests and their answers. An answer belongs to the open request of its receiver with the same siids, the
// other way round, and the same id.
#ifndef KXCTL_EXCHANGES_H
#define KXCTL_EXCHANGES_H

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>

#include "entry.h"

// A request, and what became of it. Times are ns since 1970, 0 for what has not happened.
struct exchange {
  std::string client;
  std::string server;
  std::string service;
  std::uint8_t cmd = 0;
  bool is_management = false;
  std::uint32_t sequence = 0;  // of the record of the request

  std::uint64_t asked_ns = 0;     // the client has sent it
  std::uint64_t handed_ns = 0;    // the server has it
  std::uint64_t begun_ns = 0;     // the server was through with what it had before; 0: it never had it
  std::uint64_t answered_ns = 0;  // the answer was sent
  std::uint64_t done_ns = 0;      // the client has that
  bool is_error = false;

  // The last three add up to the first.
  std::uint64_t total_ns() const { return span(asked_ns, done_ns); }
  std::uint64_t in_core_ns() const { return span(waiting_ns() + in_server_ns(), total_ns()); }
  std::uint64_t waiting_ns() const { return span(handed_ns, begun_ns); }
  std::uint64_t in_server_ns() const { return begun_ns == 0 ? 0 : span(begun_ns, answered_ns); }

  static std::uint64_t span(std::uint64_t from, std::uint64_t to) { return to > from ? to - from : 0; }
};

class exchanges {
 public:
  enum step_e { NOTHING, ASKED, DONE };
  struct step {
    step_e kind;
    const exchange* of;  // until the next entry
  };

  // What an entry is for an exchange: a new request, the arrival of its answer, or nothing of importance. Of
  // very many open requests the newest are remembered.
  step follow(const entry& what);

 private:
  using key_t = std::tuple<std::string, std::uint32_t, std::uint32_t, std::uint32_t>;
  using open_t = std::list<std::pair<key_t, exchange>>;
  struct served {
    std::uint64_t handed_ns;
    std::uint64_t answered_ns;
  };

  step follow_request(const entry& what);
  step follow_answer(const entry& what);
  void add(const key_t& key, const entry& what);
  void forget(std::map<key_t, open_t::iterator>::iterator which);
  void note_answer(exchange& of, const entry& what);

  open_t m_open;
  std::map<key_t, open_t::iterator> m_by_key;
  std::unordered_map<std::string, served> m_servers;  // what each has answered last
  exchange m_done;
};

#endif
