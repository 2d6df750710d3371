// What an application has on its port, and who owns it.
#ifndef KX_DETAIL_PART_H
#define KX_DETAIL_PART_H

#include <memory>
#include <string>
#include <utility>

#include "kx/link.h"
#include "kx/result.h"

namespace kx {

class port;

namespace detail {

// What an application has on its port. It is joined to the bus when that is, and outlives neither its owner's
// nor the port's end with anything of it on the bus.
class part : public receiver, public std::enable_shared_from_this<part> {
 public:
  explicit part(port& at) : m_port(&at) {}
  part(const part&) = delete;
  part& operator=(const part&) = delete;
  virtual ~part() = default;

  // Joins the bus, if it offers something. An error at the start of the application ends that.
  virtual result<> offer() { return {}; }
  // Joins the bus, if it uses something; whether that is done.
  virtual bool find() { return true; }
  // What the core tells about a service: that it is offered, or else withdrawn.
  virtual void hear(bool /*is_offered*/, const std::string& /*service*/) {}
  // Leaves the port, for ever; a second time, nothing.
  virtual void leave() { m_port = nullptr; }
  void receive(KXmessage& /*message*/) override {}

 protected:
  port* m_port;  // null after leave
};

// An owner's hold of a part, which leaves when this goes.
template <class Part>
class owned {
 public:
  explicit owned(std::shared_ptr<Part> held) : m_held(std::move(held)) {}
  owned(owned&&) noexcept = default;
  owned& operator=(owned&& other) noexcept {
    std::swap(m_held, other.m_held);
    return *this;
  }
  ~owned() {
    if (m_held != nullptr) m_held->leave();
  }
  Part* operator->() const { return m_held.get(); }
  const std::shared_ptr<Part>& get() const { return m_held; }

 private:
  std::shared_ptr<Part> m_held;
};

}  // namespace detail
}  // namespace kx

#endif
