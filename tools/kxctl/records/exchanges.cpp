#include "exchanges.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t max_open = 65536;
constexpr char core_name[] = "kxcore";

// Whether it tells of a request again: that has waited in the core, or was received there.
bool is_further(const entry& what, const exchange& asked) {
  const bool has_waited = what.head.event == RECORD_DELIVERED || what.head.event == RECORD_DROPPED;
  return (has_waited && asked.handed_ns == 0) ||
         (what.head.event == RECORD_REFUSED && asked.handed_ns != 0 && asked.server == core_name);
}

}  // namespace

exchanges::step exchanges::follow(const entry& what) {
  if (what.is_request()) return follow_request(what);
  if (what.is_answer()) return follow_answer(what);
  return {NOTHING, nullptr};
}

exchanges::step exchanges::follow_request(const entry& what) {
  const key_t key(what.head.sender, what.src_siid, what.dst_siid, what.msg_id);
  auto found = m_by_key.find(key);
  const bool is_known = found != m_by_key.end() && is_further(what, found->second->second);
  if (!is_known) {
    if (found != m_by_key.end()) forget(found);  // the id is in use again
    add(key, what);
  }
  exchange& asked = m_by_key[key]->second;
  if (what.has_arrived()) {
    asked.handed_ns = what.head.time_ns;
    asked.server = what.head.receiver;
  }
  return {is_known ? NOTHING : ASKED, &asked};
}

void exchanges::add(const key_t& key, const entry& what) {
  exchange added;
  added.client = what.head.sender;
  added.server = what.head.receiver;
  added.service = what.head.service;
  added.cmd = what.cmd;
  added.is_management = what.is_management();
  added.sequence = what.head.sequence;
  added.asked_ns = what.sent_ns();
  m_by_key[key] = m_open.insert(m_open.end(), {key, std::move(added)});
  if (m_open.size() > max_open) forget(m_by_key.find(m_open.front().first));
}

void exchanges::forget(std::map<key_t, open_t::iterator>::iterator which) {
  m_open.erase(which->second);
  m_by_key.erase(which);
}

exchanges::step exchanges::follow_answer(const entry& what) {
  const auto found = m_by_key.find(key_t(what.head.receiver, what.dst_siid, what.src_siid, what.msg_id));
  if (found == m_by_key.end() || what.is_failure()) return {NOTHING, nullptr};
  exchange& open = found->second->second;
  if (open.answered_ns == 0) note_answer(open, what);
  if (!what.has_arrived()) return {NOTHING, nullptr};
  open.done_ns = what.head.time_ns;
  open.is_error = what.type == MSG_ERR;
  m_done = std::move(open);
  forget(found);
  return {DONE, &m_done};
}

// A component serves its messages one by one: it begins with this one when it has answered those that it had
// before. One that answers out of order does not wait for the later ones.
void exchanges::note_answer(exchange& of, const entry& what) {
  of.answered_ns = what.sent_ns();
  if (of.handed_ns == 0) return;
  of.begun_ns = of.handed_ns;
  if (what.head.sender != of.server) return;  // which has ended with it in its hands
  served& last = m_servers[of.server];
  if (last.handed_ns <= of.handed_ns)
    of.begun_ns = std::max(of.begun_ns, std::min(last.answered_ns, of.answered_ns));
  last = {of.handed_ns, of.answered_ns};
}
