/// @file
/// Where the objects of this layer reach a bus: an application's place on the real one is a kx::app, on that
/// of a test a kx::testing::app. Applications pass it on as a `kx::port&`, and so run on both.
#ifndef KX_PORT_H
#define KX_PORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KXmessage.h"
#include "kx/detail/part.h"
#include "kx/link.h"
#include "kx/result.h"
#include "kx/values.h"

namespace kx {

/// A place on a bus, with the loop that serves it. All of it belongs to the thread of that loop.
///
/// Objects of this layer refer to their port. They may go before it or after it, in any order, also in
/// handlers, their own included; when the port has gone they do nothing any more, and sending says "not
/// sent".
class port {
 public:
  /// Called with its context and the timer's number or the descriptor; returning -1 ends it.
  using handler_t = int (*)(void* context, int value);

  port(const port&) = delete;
  port& operator=(const port&) = delete;
  virtual ~port() = default;

  /// The name of the component.
  virtual const std::string& name() const = 0;

  /// Joins the bus, runs the hooks and the loop, and returns when the application has left. Once.
  /// @return the status of quit, 0 when it was told to end otherwise, 1 when it could not start
  virtual int run() = 0;

  /// Ends the loop when what is being handled is done; `status` is what run returns then. Before the loop it
  /// ends as soon as it begins.
  virtual void quit(int status = 0) = 0;

  /// Hooks of the application's, each of them one function or none. A second one replaces the first.
  ///
  /// - up: the component is on the bus; what it offers and uses is not, as yet.
  /// - ready: everything is offered and, if it is there, found. The loop follows.
  /// - closing: the end has begun; the bus is there a last time.
  /// @{
  void on_up(std::function<void()> hook) { m_up = std::move(hook); }
  void on_ready(std::function<void()> hook) { m_ready = std::move(hook); }
  void on_closing(std::function<void()> hook) { m_closing = std::move(hook); }
  /// @}

  /// What a bus has to have. Objects of this layer call it; applications seldom.
  /// @{

  /// Offers a service, with a description (see the page about introspection) or "none"; or says why not in
  /// the core's words. `to` must outlive the link.
  virtual result<std::unique_ptr<link>> offer(const std::string& service, kind of, const std::string& xml,
                                              receiver& to) = 0;
  /// Subscribes to a service. The error is errc::no_service with the core's words, or errc::not_sent.
  virtual result<std::unique_ptr<link>> use(const std::string& service, kind of, receiver& to) = 0;

  /// A timer as KXcomponent has them: it repeats until its handler returns -1. At most 900,000 ms. del_timer
  /// is not for the timer whose handler runs.
  virtual void add_timer(int ms, void* context, handler_t handler, int number) = 0;
  virtual void del_timer(void* context, handler_t handler, int number) = 0;

  /// Watches a descriptor; false when there are too many. The descriptor stays the caller's.
  virtual bool watch(int fd, void* context, handler_t handler) = 0;
  virtual void unwatch(int fd) = 0;

  /// Milliseconds of a clock that only goes forward.
  virtual std::int64_t now() const = 0;
  /// @}

  /// For the objects of this layer.
  /// @{

  /// Takes a part in, and joins it to the bus if the others are.
  result<> add(const std::shared_ptr<detail::part>& added) {
    forget_gone();
    m_parts.push_back(added);
    result<> offered;
    if (m_stage == OFFERED || m_stage == USED) offered = added->offer();
    if (m_stage == USED && !added->find()) follow();
    return offered;
  }

  /// Has the core tell when services come and go; where it does not, looks for missing ones each second.
  void follow() {
    if (m_follows || m_stage != USED) return;
    m_follows = true;
    auto events = use("kxcore.events", kind::signal, m_events);
    if (events) m_events.held = std::move(*events);
    find_all();  // also what has come since the last look
    if (m_events.held == nullptr) add_timer(retry_ms, this, static_retry, 0);
  }

  /// Whether services can be used: from the end of the start on.
  bool is_joined() const { return m_stage == USED; }
  /// @}

 protected:
  port() = default;

  /// The phases of a start, in this order. What cannot be offered ends it.
  /// @{
  void go_up() {
    if (m_up) m_up();
  }
  result<> offer_all() {
    m_stage = OFFERED;
    result<> first_error;
    each_part([&first_error](detail::part& each) {
      if (first_error) first_error = each.offer();
    });
    return first_error;
  }
  void use_all() {
    m_stage = USED;
    if (!find_all()) follow();
    if (m_ready) m_ready();
  }
  /// @}}

  /// The beginning of the end.
  void close() {
    if (m_closing && m_stage == USED) m_closing();
    m_stage = CLOSED;
  }

  /// Takes all parts off the port. The last that a bus does with it; once more it does nothing.
  void dismiss() {
    m_stage = CLOSED;
    each_part([](detail::part& each) { each.leave(); });
    m_events.held.reset();
  }

 private:
  enum stage_e { NEW, OFFERED, USED, CLOSED };
  static constexpr int retry_ms = 1000;

  // The subscriber of the core's events.
  class event_reader : public receiver {
   public:
    explicit event_reader(port& at) : m_port(at) {}
    void receive(KXmessage& message) override {
      constexpr std::uint8_t offered = 3;
      constexpr std::uint8_t withdrawn = 4;
      const std::uint8_t what = message.m_header->cmd;
      std::string component;
      std::string service;
      std::string details;
      if ((what != offered && what != withdrawn) || !read(message, component, service, details)) return;
      m_port.each_part([&](detail::part& each) { each.hear(what == offered, service); });
    }

    std::unique_ptr<link> held;

   private:
    port& m_port;
  };

  // Parts may be added and go meanwhile.
  template <class F>
  void each_part(F function) {
    ++m_walks;
    for (std::size_t i = 0; i < m_parts.size(); ++i)
      if (const std::shared_ptr<detail::part> part = m_parts[i].lock()) function(*part);
    --m_walks;
  }

  void forget_gone() {
    if (m_walks > 0) return;
    const auto gone = [](const std::weak_ptr<detail::part>& each) { return each.expired(); };
    m_parts.erase(std::remove_if(m_parts.begin(), m_parts.end(), gone), m_parts.end());
  }

  bool find_all() {
    bool are_found = true;
    each_part([&are_found](detail::part& each) { are_found = each.find() && are_found; });
    return are_found;
  }

  static int static_retry(void* context, int /*number*/) {
    auto* const searching = static_cast<port*>(context);
    searching->m_follows = searching->m_stage == USED && !searching->find_all();
    return searching->m_follows ? 0 : -1;
  }

  std::function<void()> m_up;
  std::function<void()> m_ready;
  std::function<void()> m_closing;
  std::vector<std::weak_ptr<detail::part>> m_parts;
  event_reader m_events{*this};
  stage_e m_stage = NEW;
  int m_walks = 0;
  bool m_follows = false;
};

}  // namespace kx

#endif
