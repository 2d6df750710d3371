/// @file
/// Services whose functions are those of a class: what kxgen makes of a description builds on it.
#ifndef KX_SERVED_H
#define KX_SERVED_H

#include <type_traits>
#include <utility>

#include "kx/service.h"

namespace kx {

/// A request whose answer holds R, in type and number. Otherwise as kx::request.
template <class... R>
class typed_request : private request {
 public:
  /// Nothing to answer.
  typed_request() = default;
  /// Takes over what the other one has to answer.
  explicit typed_request(request&& taken) : request(std::move(taken)) {}

  /// As kx::request::reply.
  result<> reply(const R&... values) { return request::reply(values...); }

  using request::command;
  using request::is_open;
  using request::refuse;
};

/// Has a function of an object serve a command, as kx::service::on: its parameters behind the request say
/// which arguments there are. `self` must live as long as the service.
///
///     void set(kx::typed_request<int>& asked, int wanted);
///     kx::serve(m_service, SET, *this, &thermostat::set);
template <class Object, class... R, class... A>
void serve(service& by, command number, Object& self, void (Object::*called)(typed_request<R...>&, A...)) {
  by.on<std::decay_t<A>...>(number, [&self, called](request& asked, std::decay_t<A>... arguments) {
    typed_request<R...> typed(std::move(asked));
    (self.*called)(typed, std::move(arguments)...);
  });
}

}  // namespace kx

#endif
