// The requests of one component that have no answer yet: the newest of them, as many as there is room for.
// Whoever waits for the answer to one that had to be forgotten learns of its server's end by its own time
// limit.
//
// A ring, which grows to its limit and is never given back: a component that calls at a steady rate takes no
// memory for it.
#ifndef OPEN_REQUESTS_H
#define OPEN_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct open_request {
  std::uint32_t from;  // siid of the proxy or stub that asks
  std::uint32_t to;    // siid of the one that is asked; 0, which is no siid, when the request is closed
  std::uint32_t msg_id;
  std::uint8_t cmd;
};

class open_requests {
 public:
  static constexpr std::size_t max = 256;

  // The oldest makes room where there are `max`, or where no memory is left for more.
  void add(const open_request& request);

  // Closes the newest request with these numbers; whether there is one.
  bool close(std::uint32_t from, std::uint32_t to, std::uint32_t msg_id);

  // Takes the oldest request that `is_meant` out; false when there is none.
  template <typename Predicate>
  bool take_if(Predicate is_meant, open_request& taken) {
    for (std::size_t i = 0; i < m_count; ++i) {
      if (at(i).to == 0 || !is_meant(at(i))) continue;
      taken = at(i);
      at(i).to = 0;
      trim();
      return true;
    }
    return false;
  }

 private:
  open_request& at(std::size_t i) { return m_slots[(m_begin + i) % m_slots.size()]; }
  void grow();
  void trim();

  std::vector<open_request> m_slots;
  std::size_t m_begin = 0;
  std::size_t m_count = 0;  // from the oldest open request to the newest, closed ones between them included
};

#endif
