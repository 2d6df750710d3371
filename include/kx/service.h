/// @file
/// Services whose functions are typed: what arrives has been checked.
#ifndef KX_SERVICE_H
#define KX_SERVICE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "kx/detail/function.h"
#include "kx/port.h"
#include "kx/result.h"
#include "kx/values.h"

namespace kx {

class request;

namespace detail {

// The part of a stub: a service's or an emitter's.
class offering : public part {
 public:
  offering(port& at, std::string name, kind of, std::string xml)
      : part(at), m_name(std::move(name)), m_kind(of), m_xml(std::move(xml)) {}

  result<> offer() override {
    if (m_link != nullptr || m_port == nullptr) return {};
    auto offered = m_port->offer(m_name, m_kind, m_xml, *this);
    m_state = offered ? result<>() : result<>(offered.error());
    m_link = std::move(*offered);
    return m_state;
  }

  void leave() override {
    m_link.reset();
    m_state = error{errc::not_sent, "it has left the bus"};
    part::leave();
  }

  const result<>& state() const { return m_state; }
  std::uint32_t siid() const { return m_link->siid(); }

  // Sends a message that is addressed; its source is set here.
  result<> send(KXmessage& message) {
    if (m_link == nullptr) return m_state;
    if (m_link->send(message)) return {};
    return error{errc::not_sent, "the message could not be sent"};
  }

 private:
  const std::string m_name;
  const kind m_kind;
  const std::string m_xml;
  std::unique_ptr<link> m_link;
  result<> m_state = error{errc::not_sent, "the application is not on the bus yet"};
};

class service_state;

}  // namespace detail

/// A request that waits for its answer. It can be moved and kept, and is answered once. One that is destroyed
/// without an answer is refused by itself, so that nobody waits for it. One-way messages come as requests,
/// too, which need no answer. When the service has gone, answers go nowhere.
class request {
 public:
  /// Nothing to answer.
  request() = default;
  /// The other one has nothing to answer any more. What this one still had is refused.
  /// @{
  request(request&& other) noexcept = default;
  request& operator=(request&& other) noexcept {
    request replaced(std::move(*this));
    m_service = std::move(other.m_service);
    m_header = other.m_header;
    return *this;
  }
  /// @}
  ~request() {
    if (is_open()) refuse("the service has not answered it");
  }

  /// Answers with these values. Of an answer that does not fit (errc::too_long) nothing is sent, and the
  /// request is still open. Nothing is sent either when it is not open: then the error is errc::not_sent.
  template <class... T>
  result<> reply(const T&... values) {
    KXmessage answer;
    if (!write(answer, values...)) return error{errc::too_long, "the answer does not fit into a message"};
    return send(answer, MSG_RSP);
  }

  /// Answers that it is not carried out, and why: a text for people, of which 2,000 bytes are sent. Nothing
  /// when the request is not open.
  void refuse(std::string_view why) {
    KXmessage answer;
    write(answer, why.substr(0, 2000));
    send(answer, MSG_ERR);
  }

  /// Whether it is to be answered: not a one-way message, and not answered yet.
  bool is_open() const { return m_service != nullptr && m_header.msg_type == MSG_REQ; }

  /// Which command of the service it is for.
  std::uint8_t command() const { return m_header.cmd; }

 private:
  friend class detail::service_state;

  request(std::shared_ptr<detail::offering> of, const msg_header_t& header)
      : m_service(std::move(of)), m_header(header) {}

  result<> send(KXmessage& answer, msg_type_e type) {
    if (!is_open()) return error{errc::not_sent, "there is nothing to answer"};
    answer.m_header->dst_siid = m_header.src_siid;
    answer.m_header->msg_type = type;
    answer.m_header->cmd = m_header.cmd;
    answer.m_header->msg_id = m_header.msg_id;
    return std::exchange(m_service, nullptr)->send(answer);
  }

  std::shared_ptr<detail::offering> m_service;  // null when it is answered, or moved away
  msg_header_t m_header{};
};

namespace detail {

class service_state : public offering {
 public:
  using handler = function<void(request&, const KXmessage&)>;

  using offering::offering;

  void set(std::uint8_t command, handler called) {
    m_handlers[command] = std::make_shared<handler>(std::move(called));
  }

  void receive(KXmessage& message) override {
    const std::uint8_t type = message.m_header->msg_type;
    if (type != MSG_REQ && type != MSG_SIG) return;
    const auto self = std::static_pointer_cast<offering>(shared_from_this());
    request asked(self, *message.m_header);
    const auto entry = m_handlers.find(asked.command());
    if (entry == m_handlers.end())
      return asked.refuse("the service has no command " + std::to_string(asked.command()));
    const std::shared_ptr<handler> called = entry->second;  // which may replace itself
    (*called)(asked, message);
  }

  // Reads the arguments and calls the handler with them; or refuses them.
  template <class... T, class F>
  static void call(F& called, request& asked, const KXmessage& message) {
    std::tuple<T...> arguments;
    reader from(message);
    const bool fits = std::apply([&from](T&... each) { return read(from, each...); }, arguments);
    if (!fits) return asked.refuse("the arguments do not fit: " + from.reason());
    std::apply([&](T&... each) { called(asked, std::move(each)...); }, arguments);
  }

 private:
  std::map<std::uint8_t, std::shared_ptr<handler>> m_handlers;
};

}  // namespace detail

/// A service that the application offers under a name: its functions, each under a command.
///
///     kx::service service(app, "thermostat");
///     service.on<int, std::string>(SET, [](kx::request& q, int degrees, const std::string& room) {
///       q.reply(heat(room, degrees));
///     });
///
/// It is offered when the application starts, or at once when that is under way; a name that is taken ends
/// the start of the application. It may be moved, and destroyed in every handler, its own included: that
/// withdraws it, and the core refuses the requests that are open. To all of it applies what kx::port says.
class service {
 public:
  /// `xml` describes the service to who asks the bus (see the page about introspection).
  explicit service(port& at, std::string name, std::string xml = "none")
      : m_state(
            std::make_shared<detail::service_state>(at, std::move(name), kind::function, std::move(xml))) {
    at.add(m_state.get());  // offered() says what came of it
  }

  /// Has `handler(request&, T...)` serve a command, in place of an earlier one. Before it is called the
  /// arguments are compared with T in type and number; a request with others is refused with a reason, a
  /// one-way message is dropped. A request that the handler neither answers nor moves away is refused. What
  /// it throws leaves the loop.
  template <class... T, class F>
  void on(command number, F handler) {
    m_state->set(number.code,
                 [called = std::move(handler)](request& asked, const KXmessage& message) mutable {
                   detail::service_state::call<T...>(called, asked, message);
                 });
  }

  /// Whether it is offered; if not, why: errc::refused with the core's words, or errc::not_sent.
  const result<>& offered() const { return m_state->state(); }

 private:
  detail::owned<detail::service_state> m_state;
};

}  // namespace kx

#endif
