// The requests of one client that wait for their answers.
#ifndef KX_DETAIL_PENDING_H
#define KX_DETAIL_PENDING_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kx/detail/function.h"
#include "kx/result.h"

class KXmessage;

namespace kx::detail {

// One request: what is called with its answer, or with null and why there is none.
struct pending_request {
  std::uint32_t msg_id;   // in network byte order; of no meaning when there is a failure already
  std::int64_t deadline;  // on the port's clock
  error failure;          // what is told at the deadline
  function<void(const KXmessage*, error)> done;
};

// Packed, so that nothing allocates once there have been as many at a time.
class pending_requests {
 public:
  static constexpr std::size_t max = 4095;  // a subscription has 4096 message ids

  bool is_full() const { return m_requests.size() >= max; }
  void add(pending_request added) { m_requests.push_back(std::move(added)); }
  void clear() { m_requests.clear(); }

  // Takes the request with this id, or the first whose deadline has come; false when there is none.
  // @{
  bool take_answered(std::uint32_t msg_id, pending_request& to) {
    return take_if([=](const pending_request& each) { return is_sent(each) && each.msg_id == msg_id; }, to);
  }
  bool take_expired(std::int64_t now, pending_request& to) {
    return take_if([=](const pending_request& each) { return each.deadline <= now; }, to);
  }
  // @}

  // The earliest deadline; of an empty table `none`.
  std::int64_t earliest(std::int64_t none) const {
    for (const pending_request& each : m_requests)
      none = std::min(none, each.deadline);
    return none;
  }

 private:
  static bool is_sent(const pending_request& each) { return each.failure.code == errc::no_answer; }

  template <class Predicate>
  bool take_if(Predicate is_meant, pending_request& to) {
    const auto found = std::find_if(m_requests.begin(), m_requests.end(), is_meant);
    if (found == m_requests.end()) return false;
    to = std::move(*found);
    if (&*found != &m_requests.back()) *found = std::move(m_requests.back());
    m_requests.pop_back();
    return true;
  }

  std::vector<pending_request> m_requests;
};

}  // namespace kx::detail

#endif
