// The part of a proxy: a client's or a listener's.
#ifndef KX_DETAIL_USING_H
#define KX_DETAIL_USING_H

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "kx/port.h"

namespace kx::detail {

// It looks for its service until it is found. From then on the core keeps the subscription while the service
// goes and comes; but a service that the same component withdraws and offers again is another one.
class user : public part {
 public:
  user(port& at, std::string name, kind of) : part(at), m_name(std::move(name)), m_kind(of) {}

  bool find() override {
    if (is_found() || m_port == nullptr) return true;
    if (!m_port->is_joined()) return false;
    auto used = m_port->use(m_name, m_kind, *this);
    if (!used) m_failure = used.error();
    m_link = std::move(*used);
    if (!is_found()) return false;
    if (m_is_watched) m_port->follow();
    set_available(true);
    return true;
  }

  void hear(bool is_offered, const std::string& service) override {
    if (service != m_name) return;
    if (is_offered) is_found() ? renew() : static_cast<void>(find());
    set_available(is_offered && is_found());
  }

  void leave() override {
    m_link.reset();
    m_on_available = nullptr;
    m_on_gone = nullptr;
    m_failure = {errc::not_sent, "it has left the bus"};
    part::leave();
  }

  void on_available(std::function<void()> handler) {
    m_on_available = std::move(handler);
    watch();
  }
  void on_gone(std::function<void()> handler) {
    m_on_gone = std::move(handler);
    watch();
  }

  bool is_found() const { return m_link != nullptr; }
  bool is_available() const { return m_is_available; }

 protected:
  link* at_service() const { return m_link.get(); }
  const error& failure() const { return m_failure; }
  const std::string& name() const { return m_name; }

 private:
  void watch() {
    m_is_watched = true;
    if (m_port != nullptr) m_port->follow();
  }

  void renew() {
    auto used = m_port->use(m_name, m_kind, *this);
    if (used && (*used)->service_siid() != m_link->service_siid()) m_link.swap(*used);
  }

  // Its handlers may replace themselves and destroy this.
  void set_available(bool is_available) {
    if (std::exchange(m_is_available, is_available) == is_available) return;
    const auto self = shared_from_this();
    const std::function<void()> told = is_available ? m_on_available : m_on_gone;
    if (told) told();
  }

  const std::string m_name;
  const kind m_kind;
  std::unique_ptr<link> m_link;
  error m_failure{errc::not_sent, "the application is not on the bus yet"};
  std::function<void()> m_on_available;
  std::function<void()> m_on_gone;
  bool m_is_watched = false;
  bool m_is_available = false;
};

}  // namespace kx::detail

#endif
