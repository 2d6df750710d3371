/// @file
/// Typed calls of a service.
#ifndef KX_CLIENT_H
#define KX_CLIENT_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "kx/detail/pending.h"
#include "kx/detail/using.h"
#include "kx/loop.h"
#include "kx/port.h"
#include "kx/result.h"
#include "kx/values.h"

namespace kx {

namespace detail {

// The values of an answer, or the error that it is.
template <class... R>
result<R...> read_answer(const KXmessage& answer) {
  if (answer.m_header->msg_type == MSG_ERR) {
    std::string reason;
    return read(answer, reason) ? error{errc::refused, reason} : error{errc::refused, ""};
  }
  std::tuple<R...> values;
  reader from(answer);
  if (!std::apply([&from](R&... each) { return read(from, each...); }, values))
    return error{errc::unreadable, "the answer does not fit: " + from.reason()};
  if constexpr (sizeof...(R) == 1) {
    return std::get<0>(std::move(values));
  } else {
    return values;
  }
}

class client_state : public user {
 public:
  client_state(port& at, std::string name)
      : user(at, std::move(name), kind::function),
        m_timer(std::make_shared<timer_state>(at, [this] { expire(); })) {}

  // Sends a message of this type with the values. Of a synchronous request the answer takes its place.
  // @{
  template <class... A>
  error call(KXmessage& message, command number, const A&... values) {
    error failure = prepare(message, number, values...);
    if (failure.code != errc::none) return failure;
    return failure_of(at_service()->call(message));
  }
  template <class... A>
  error send(KXmessage& message, msg_type_e type, command number, const A&... values) {
    error failure = prepare(message, number, values...);
    if (failure.code != errc::none) return failure;
    message.m_header->msg_type = type;
    return failure_of(at_service()->send(message) ? link::outcome::answered : link::outcome::not_sent);
  }
  // @}

  // Has `done` called with the answer to what was sent, or with the error at once or at the deadline; always
  // from the loop.
  void await(const KXmessage& sent, error failure, std::chrono::milliseconds limit,
             function<void(const KXmessage*, error)> done) {
    if (m_port == nullptr) return;
    if (failure.code != errc::none) {
      limit = std::chrono::milliseconds(0);
    } else {
      failure = {errc::no_answer, ""};
    }
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
    const std::int64_t deadline = m_port->now() + std::min(limit, longest).count();
    m_pending.add({sent.m_header->msg_id, deadline, std::move(failure), std::move(done)});
    if (deadline < m_next_look) look_at(deadline);
  }

  void receive(KXmessage& message) override {
    const auto self = shared_from_this();
    const std::uint8_t type = message.m_header->msg_type;
    if (type != MSG_RSP && type != MSG_ERR) return;
    pending_request answered;
    if (!m_pending.take_answered(message.m_header->msg_id, answered)) {
      ++m_late;
      return;
    }
    answered.done(&message, {});
  }

  void leave() override {
    m_timer->leave();
    m_pending.clear();
    user::leave();
  }

  unsigned long late() const { return m_late; }
  bool is_full() const { return m_pending.is_full(); }

 private:
  static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

  template <class... A>
  error prepare(KXmessage& message, command number, const A&... values) {
    if (!write(message, values...)) return {errc::too_long, "the arguments do not fit into a message"};
    message.m_header->cmd = number.code;
    if (!is_found()) find();
    return is_found() ? error{} : failure();
  }

  error failure_of(link::outcome outcome) const {
    switch (outcome) {
      case link::outcome::own:
        return {errc::not_sent,
                "'" + name() + "' is the application's own: only an asynchronous call reaches it"};
      case link::outcome::not_sent:
        return {errc::not_sent, "the message could not be sent"};
      case link::outcome::no_answer:
        return {errc::no_answer, "'" + name() + "' does not answer"};
      default:
        return {};
    }
  }

  // One timer for all: it runs until the earliest deadline that there was when it was started, or as far as a
  // timer reaches.
  void look_at(std::int64_t deadline) {
    m_next_look = deadline;
    const std::int64_t wait = std::max(deadline - m_port->now(), std::int64_t{0});
    m_timer->start(std::chrono::milliseconds(wait), false);
  }

  void expire() {
    const auto self = shared_from_this();
    m_next_look = never;
    const std::int64_t now = m_port->now();
    for (pending_request expired; m_pending.take_expired(now, expired);) {
      if (expired.failure.code == errc::no_answer) expired.failure = failure_of(link::outcome::no_answer);
      expired.done(nullptr, std::move(expired.failure));
    }
    const std::int64_t next = m_pending.earliest(never);
    if (next < m_next_look) look_at(next);
  }

  pending_requests m_pending;
  std::shared_ptr<timer_state> m_timer;
  std::int64_t m_next_look = never;
  unsigned long m_late = 0;
};

}  // namespace detail

/// An asynchronous call that is being put together. It is sent by `then`.
template <class... R>
class [[nodiscard]] async_call {
 public:
  /// How long to wait for the answer, a year at most; 10 seconds unless it is said. An answer after that is
  /// dropped and counted (client::late).
  async_call&& within(std::chrono::milliseconds limit) && {
    m_limit = limit;
    return std::move(*this);
  }

  /// Sends the request, and has `handler(kx::result<R...>)` called once, from the loop: with the answer, or
  /// with the error, also when nothing could be sent. Not when the client is destroyed before. The handler
  /// may be a lambda that owns what can only be moved; up to 8 pointers' room it takes no memory.
  template <class F>
  void then(F handler) && {
    m_client->await(
        m_message, std::move(m_failure), m_limit,
        [called = std::move(handler)](const KXmessage* answer, error failure) mutable {
          called(answer == nullptr ? result<R...>(std::move(failure)) : detail::read_answer<R...>(*answer));
        });
  }

 private:
  friend class client;
  explicit async_call(std::shared_ptr<detail::client_state> of) : m_client(std::move(of)) {}

  std::shared_ptr<detail::client_state> m_client;
  KXmessage m_message;
  error m_failure;
  std::chrono::milliseconds m_limit{10'000};
};

/// A user of a service: synchronous and asynchronous calls, and one-way messages.
///
///     kx::client thermostat(app, "thermostat");
///     if (const auto degrees = thermostat.call<int>(GET)) std::printf("%d degrees\n", *degrees);
///     thermostat.async<int>(SELF_TEST).within(30s).then([](const kx::result<int>& faults) { ... });
///
/// It looks for its service by itself, from the start of the application on, also when the service comes
/// later, or comes back: by what the core tells of it (kxcore.events), else once a second. It may be
/// destroyed in every handler, its own included. To all of it applies what kx::port says.
///
/// What a component does not get back: after the core itself has started anew, all that was on the bus before
/// is unknown to it, and calls are refused with "the sender is not registered".
class client {
 public:
  /// Of the service of this name; which need not be there yet.
  client(port& at, std::string service)
      : m_state(std::make_shared<detail::client_state>(at, std::move(service))) {
    at.add(m_state.get());
  }

  /// Sends a request with these arguments, and blocks for the answer, for 10 seconds at most: it holds R, in
  /// type and number, or there is an error. Meanwhile nothing else of the application happens. A handler may
  /// call, but not a service of its own application (errc::not_sent), and two applications not each other.
  template <class... R, class... A>
  [[nodiscard]] result<R...> call(command number, const A&... arguments) {
    KXmessage message;
    error failure = m_state->call(message, number, arguments...);
    if (failure.code != errc::none) return failure;
    return detail::read_answer<R...>(message);
  }

  /// A request whose answer, which holds R, comes later:
  /// `client.async<int>(CMD, arguments...).within(500ms).then(handler)`. At most 4095 at a time.
  template <class... R, class... A>
  async_call<R...> async(command number, const A&... arguments) {
    async_call<R...> made(m_state.get());
    if (m_state->is_full()) {
      made.m_failure = {errc::not_sent, "too many requests are under way"};
    } else {
      made.m_failure = m_state->send(made.m_message, MSG_REQ, number, arguments...);
    }
    return made;
  }

  /// Sends a message that nobody answers. Whether it arrives is not known.
  template <class... A>
  result<> send(command number, const A&... arguments) {
    KXmessage message;
    error failure = m_state->send(message, MSG_SIG, number, arguments...);
    if (failure.code != errc::none) return failure;
    return {};
  }

  /// Called, from the loop or while the application starts, when the service is found or offered again; and
  /// when it is withdrawn or its component ends. Each is one function or none. The core tells it where it has
  /// kxcore.events; elsewhere on_available is called once, when the service is found, and on_gone never.
  /// @{
  void on_available(std::function<void()> handler) { m_state->on_available(std::move(handler)); }
  void on_gone(std::function<void()> handler) { m_state->on_gone(std::move(handler)); }
  /// @}

  /// Whether the service was there when it was heard of last.
  bool is_available() const { return m_state->is_available(); }

  /// Answers that came too late, and were dropped.
  unsigned long late() const { return m_state->late(); }

 private:
  detail::owned<detail::client_state> m_state;
};

}  // namespace kx

#endif
