/// @file
/// Typed signals: one sends, many listen.
#ifndef KX_SIGNALS_H
#define KX_SIGNALS_H

#include <arpa/inet.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "kx/detail/using.h"
#include "kx/port.h"
#include "kx/service.h"

namespace kx {

namespace detail {

template <class... T>
class listener_state : public user {
 public:
  listener_state(port& at, std::string name, int number, function<void(T...)> handler)
      : user(at, std::move(name), kind::signal), m_number(number), m_handler(std::move(handler)) {}

  void receive(KXmessage& message) override {
    if (m_number >= 0 && m_number != message.m_header->cmd) return;
    std::tuple<T...> values;
    if (!std::apply([&message](T&... each) { return read(message, each...); }, values)) {
      ++m_unreadable;
      return;
    }
    const auto self = shared_from_this();
    std::apply([this](T&... each) { m_handler(std::move(each)...); }, values);
  }

  unsigned long unreadable() const { return m_unreadable; }

 private:
  const int m_number;  // -1: any
  function<void(T...)> m_handler;
  unsigned long m_unreadable = 0;
};

}  // namespace detail

/// A signal that the application offers, with the values T. What kx::service says of offering, and kx::port
/// of all, applies to it.
template <class... T>
class emitter {
 public:
  /// `number` is the command of its messages, `xml` describes it to who asks the bus.
  explicit emitter(port& at, std::string name, command number = 0, std::string xml = "none")
      : m_state(std::make_shared<detail::offering>(at, std::move(name), kind::signal, std::move(xml))),
        m_number(number) {
    at.add(m_state.get());
  }

  /// Sends the values to all who listen. Whether anybody does is not known, and what the core has no room for
  /// is lost. @return success; errc::too_long or errc::not_sent when nothing was sent
  result<> emit(const T&... values) {
    if (!offered()) return offered();
    KXmessage message;
    if (!write(message, values...)) return error{errc::too_long, "the values do not fit into a message"};
    message.m_header->dst_siid = htonl(m_state->siid());  // its own: all its subscribers
    message.m_header->msg_type = MSG_SIG;
    message.m_header->cmd = m_number.code;
    return m_state->send(message);
  }

  /// As service::offered.
  const result<>& offered() const { return m_state->state(); }

 private:
  detail::owned<detail::offering> m_state;
  command m_number;
};

/// Hears a signal, from the time on at which it is found: it looks for it as a kx::client for its service. It
/// may be destroyed in every handler, its own included.
template <class... T>
class listener {
 public:
  /// Has `handler(T...)` called, from the loop, with each message of the signal, or with those of one
  /// command. Messages that do not hold T, in type and number, are dropped and counted.
  /// @{
  template <class F>
  listener(port& at, std::string signal, F handler)
      : listener(at, std::move(signal), -1, std::move(handler), 0) {}
  template <class F>
  listener(port& at, std::string signal, command number, F handler)
      : listener(at, std::move(signal), number.code, std::move(handler), 0) {}
  /// @}

  /// As client::on_available, client::on_gone and client::is_available.
  /// @{
  void on_available(std::function<void()> handler) { m_state->on_available(std::move(handler)); }
  void on_gone(std::function<void()> handler) { m_state->on_gone(std::move(handler)); }
  bool is_available() const { return m_state->is_available(); }
  /// @}

  /// Messages that were dropped because they hold other values.
  unsigned long unreadable() const { return m_state->unreadable(); }

 private:
  template <class F>
  listener(port& at, std::string signal, int number, F handler, int /*to be another one*/)
      : m_state(std::make_shared<detail::listener_state<T...>>(at, std::move(signal), number,
                                                               std::move(handler))) {
    at.add(m_state.get());
  }

  detail::owned<detail::listener_state<T...>> m_state;
};

}  // namespace kx

#endif
