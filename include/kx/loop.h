/// @file
/// Timers and descriptors of an application's loop, as lambdas that end with their owner.
#ifndef KX_LOOP_H
#define KX_LOOP_H

#include <chrono>
#include <memory>
#include <utility>

#include "kx/detail/function.h"
#include "kx/port.h"

namespace kx {

namespace detail {

class timer_state : public part {
 public:
  timer_state(port& at, function<void()> handler) : part(at), m_handler(std::move(handler)) {}

  void start(std::chrono::milliseconds period, bool repeats) {
    stop();
    if (m_port == nullptr) return;
    m_repeats = repeats;
    m_armed = ++m_last;
    constexpr std::chrono::milliseconds longest = std::chrono::minutes(15);
    const bool is_in_reach = period >= std::chrono::milliseconds(0) && period < longest;
    const std::chrono::milliseconds reached = is_in_reach ? period : longest;
    m_port->add_timer(static_cast<int>(reached.count()), this, static_ring, m_armed);
  }

  // The handler's own timer ends when that returns.
  void stop() {
    const int armed = std::exchange(m_armed, 0);
    if (armed != 0 && armed != m_ringing && m_port != nullptr) m_port->del_timer(this, static_ring, armed);
  }

  bool runs() const { return m_armed != 0; }

  void leave() override {
    stop();
    part::leave();
  }

 private:
  static int static_ring(void* context, int number) {
    const auto state = std::static_pointer_cast<timer_state>(
        static_cast<timer_state*>(context)->shared_from_this());  // the handler may destroy the timer
    state->m_ringing = number;
    if (!state->m_repeats) state->m_armed = 0;
    state->m_handler();
    state->m_ringing = 0;
    return state->m_armed == number ? 0 : -1;
  }

  function<void()> m_handler;
  bool m_repeats = false;
  int m_last = 0;     // number of the last timer armed
  int m_armed = 0;    // of the one that is; 0 for none
  int m_ringing = 0;  // of the one whose handler runs
};

class descriptor_state : public part {
 public:
  descriptor_state(port& at, int fd, function<void()> handler)
      : part(at), m_fd(fd), m_handler(std::move(handler)), m_is_watched(at.watch(fd, this, static_serve)) {}

  bool is_watched() const { return m_is_watched; }

  void leave() override {
    if (std::exchange(m_is_watched, false)) m_port->unwatch(m_fd);
    part::leave();
  }

 private:
  static int static_serve(void* context, int /*fd*/) {
    const auto state = std::static_pointer_cast<descriptor_state>(
        static_cast<descriptor_state*>(context)->shared_from_this());
    state->m_handler();
    return 0;
  }

  const int m_fd;
  function<void()> m_handler;
  bool m_is_watched;
};

}  // namespace detail

/// Calls a function on the loop's thread when its time has come. It may be started, stopped and destroyed in
/// every handler, its own included. The loop fires one timer in each turn, and only when no descriptor is
/// ready: on a busy bus it may be late. It must not be started before the port's loop is made, and does
/// nothing when that has gone.
class timer {
 public:
  /// `handler` is called without arguments; it does not run before the timer is started.
  template <class F>
  timer(port& at, F handler) : m_state(std::make_shared<detail::timer_state>(at, std::move(handler))) {
    at.add(m_state.get());
  }

  /// Has it run `period` from now, and every `period` after that, or only once. A timer that runs begins
  /// anew. At most 15 minutes; more, or less than nothing, counts as that.
  /// @{
  void every(std::chrono::milliseconds period) { m_state->start(period, true); }
  void once(std::chrono::milliseconds after) { m_state->start(after, false); }
  /// @}

  /// Nothing happens any more until it is started again.
  void stop() { m_state->stop(); }

  /// Whether it is started, and has not run if that is to be once.
  bool runs() const { return m_state->runs(); }

 private:
  detail::owned<detail::timer_state> m_state;
};

/// Calls a function on the loop's thread whenever a descriptor is readable. The descriptor stays the
/// caller's, who destroys this before closing it; in any handler, its own included. One that hangs up or
/// fails is not served and should be let go: see KXcomponent::add_socket_descriptor.
class descriptor {
 public:
  /// `fd` is watched from now on, by one object at a time; `handler` is called without arguments and reads
  /// what there is.
  template <class F>
  descriptor(port& at, int fd, F handler)
      : m_state(std::make_shared<detail::descriptor_state>(at, fd, std::move(handler))) {
    at.add(m_state.get());
  }

  /// False when `fd` is negative or the application watches as many as it can (62).
  bool is_watched() const { return m_state->is_watched(); }

 private:
  detail::owned<detail::descriptor_state> m_state;
};

}  // namespace kx

#endif
