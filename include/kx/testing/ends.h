/// @file
/// What makes the applications of a test's bus meet. A part of kx/testing.h.
#ifndef KX_TESTING_ENDS_H
#define KX_TESTING_ENDS_H

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "kx/testing.h"

namespace kx::testing {

/// One end of a service on such a bus.
class end : public link {
 public:
  end(app& at, const core::grant& granted, receiver& to) : m_app(at), m_granted(granted) {
    m_entry = at.m_receivers.emplace(granted.siid, &to);
  }
  ~end() override {
    m_app.m_receivers.erase(m_entry);
    m_app.m_bus.m_core.withdraw(m_app, m_granted.siid);
  }

  std::uint32_t siid() const override { return m_granted.siid; }
  std::uint32_t service_siid() const override { return m_granted.service_siid; }
  bool send(KXmessage& message) override {
    if (!m_app.m_runs) return false;
    message.m_header->src_siid = htonl(m_granted.siid);
    m_app.m_bus.m_core.route(m_app, message);
    return true;
  }
  outcome call(KXmessage& /*message*/) override { return outcome::not_sent; }

 protected:
  app& m_app;
  const core::grant m_granted;

 private:
  std::multimap<std::uint32_t, receiver*>::iterator m_entry;
};

/// The end of who uses a service.
class proxy_end final : public end {
 public:
  using end::end;

  bool send(KXmessage& message) override {
    if (++m_id >= m_granted.end_id) m_id = m_granted.first_id;
    message.m_header->dst_siid = htonl(m_granted.service_siid);
    message.m_header->msg_id = htonl(m_id);
    return end::send(message);
  }

  outcome call(KXmessage& message) override {
    if (m_app.m_receivers.count(m_granted.service_siid) != 0) return outcome::own;
    message.m_header->msg_type = MSG_REQ;
    if (!send(message)) return outcome::not_sent;
    const std::uint32_t msg_id = message.m_header->msg_id;
    const bool was_blocked = std::exchange(m_app.m_is_blocked, true);
    const bool is_answered = await(msg_id, message);
    m_app.m_is_blocked = was_blocked;
    return is_answered ? outcome::answered : outcome::no_answer;
  }

 private:
  // Lets the others go on until the answer is there, and time pass when they do nothing any more.
  bool await(std::uint32_t msg_id, KXmessage& answer) {
    constexpr std::int64_t patience_ms = 10'000;
    bus& on = m_app.m_bus;
    const std::int64_t last = on.m_now + patience_ms;
    for (;;) {
      if (on.take_answer(m_app, msg_id, answer)) return true;
      if (on.step()) continue;
      if (on.m_now == last) return false;
      on.m_now = std::min(std::max(on.m_now, on.next_event()), last);
    }
  }

  std::uint32_t m_id = m_granted.first_id;
};

// --- bus ---

inline void bus::deliver(member& to, const KXmessage& message, const std::string& service) {
  const std::uint8_t type = message.m_header->msg_type;
  fault& of = m_faults[service];
  if (type == MSG_REQ && of.is_silent) return;
  if (type == MSG_SIG && of.lost > 0) {
    --of.lost;
    return;
  }
  const std::int64_t due = m_now + (type == MSG_REQ ? 0 : of.delay);
  m_letters.push_back({static_cast<app*>(&to), message, due});
}

inline bool bus::step() { return deliver_next() || fire_next(); }

inline bool bus::deliver_next() {
  const auto next = std::find_if(m_letters.begin(), m_letters.end(), [this](const letter& each) {
    return each.due <= m_now && !each.to->m_is_blocked;
  });
  if (next == m_letters.end()) return false;
  letter arrived = std::move(*next);
  m_letters.erase(next);
  if (arrived.to->m_runs) arrived.to->take(arrived.message);
  return true;
}

inline bool bus::fire_next() {
  auto next = m_timers.end();
  for (auto each = m_timers.begin(); each != m_timers.end(); ++each)
    if (each->due <= m_now && each->of->m_runs && !each->of->m_is_blocked &&
        (next == m_timers.end() || each->due < next->due))
      next = each;
  if (next == m_timers.end()) return false;
  timer fired = *next;
  m_timers.erase(next);
  app& of = *fired.of;
  if (fired.handler(fired.context, fired.number) != -1)
    of.add_timer(fired.ms, fired.context, fired.handler, fired.number);
  if (of.m_quits) of.stop();
  return true;
}

inline bool bus::take_answer(const app& to, std::uint32_t msg_id, KXmessage& answer) {
  const auto found = std::find_if(m_letters.begin(), m_letters.end(), [&](const letter& each) {
    return each.to == &to && each.due <= m_now && each.message.m_header->msg_id == msg_id;
  });
  if (found == m_letters.end()) return false;
  answer = found->message;
  m_letters.erase(found);
  return true;
}

inline std::int64_t bus::next_event() const {
  std::int64_t next = never;
  for (const letter& each : m_letters)
    if (!each.to->m_is_blocked) next = std::min(next, each.due);
  for (const timer& each : m_timers)
    if (each.of->m_runs && !each.of->m_is_blocked) next = std::min(next, each.due);
  return next;
}

inline void bus::forget(const app& gone) {
  m_letters.remove_if([&gone](const letter& each) { return each.to == &gone; });
  m_timers.remove_if([&gone](const timer& each) { return each.of == &gone; });
}

// --- app ---

inline void app::quit(int status) {
  m_status = status;
  m_quits = true;
}

inline result<std::unique_ptr<link>> app::offer(const std::string& service, kind of,
                                                const std::string& /*xml*/, receiver& to) {
  const result<core::grant> granted = m_bus.m_core.offer(*this, service, of);
  if (!granted) return granted.error();
  return std::unique_ptr<link>(std::make_unique<end>(*this, *granted, to));
}

inline result<std::unique_ptr<link>> app::use(const std::string& service, kind of, receiver& to) {
  const result<core::grant> granted = m_bus.m_core.use(*this, service, of);
  if (!granted) return error{errc::no_service, granted.error().reason};
  return std::unique_ptr<link>(std::make_unique<proxy_end>(*this, *granted, to));
}

inline void app::add_timer(int ms, void* context, handler_t handler, int number) {
  constexpr int longest = 900'000;
  const int wait = ms < 0 || ms > longest ? longest : ms;
  m_bus.m_timers.push_back({this, ms, context, handler, number, m_bus.m_now + wait});
}

inline void app::del_timer(void* context, handler_t handler, int number) {
  const auto entry = std::find_if(m_bus.m_timers.begin(), m_bus.m_timers.end(), [&](const bus::timer& each) {
    return each.of == this && each.context == context && each.handler == handler && each.number == number;
  });
  if (entry != m_bus.m_timers.end()) m_bus.m_timers.erase(entry);
}

}  // namespace kx::testing

#endif
