/// @file
/// What a call comes to: its values, or why there are none.
#ifndef KX_RESULT_H
#define KX_RESULT_H

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kx {

/// What went wrong.
enum class errc {
  none,        ///< nothing
  no_service,  ///< the service cannot be used: nobody offers it, or it is of another kind
  refused,     ///< the service, or the core in its place, has answered with a refusal
  no_answer,   ///< none came in time
  unreadable,  ///< the answer holds other values than were wanted
  too_long,    ///< the values do not fit into one message: nothing was sent
  not_sent     ///< the message could not be sent
};

/// Why there is no value. An object of its own, or that of a result.
struct error {
  errc code = errc::none;  ///< what it is
  std::string reason{};    ///< for people; of a refusal the words of who refused. May be empty.
};

/// The values of an answer, or an error. None of its operations throws, but for what the values throw.
///
///     result<>           nothing, or an error
///     result<T>          a T
///     result<T, U...>    a std::tuple<T, U...>
template <class... T>
class result {
  static constexpr bool is_one = sizeof...(T) == 1;
  template <class First, class...>
  struct first_of {
    using type = First;
  };

 public:
  /// What it holds.
  using value_type =
      typename std::conditional_t<is_one, first_of<T..., void>, first_of<std::tuple<T...>>>::type;

  /// Success, with the default value.
  result() = default;
  /// Success with a value, or an error; implicit, so that functions can return either.
  /// @{
  result(value_type value) : m_value(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  result(kx::error why) : m_error(std::move(why)) {}       // NOLINT(google-explicit-constructor)
  /// @}

  /// Whether there is a value.
  /// @{
  bool ok() const { return m_error.code == errc::none; }
  explicit operator bool() const { return ok(); }
  /// @}

  /// The value; a default one when there is an error.
  /// @{
  const value_type& value() const& { return m_value; }
  value_type& value() & { return m_value; }
  value_type&& value() && { return std::move(m_value); }
  const value_type& operator*() const& { return m_value; }
  value_type& operator*() & { return m_value; }
  value_type&& operator*() && { return std::move(m_value); }
  const value_type* operator->() const { return &m_value; }
  value_type* operator->() { return &m_value; }
  /// @}

  /// The value, or `otherwise` when there is an error.
  value_type value_or(value_type otherwise) const { return ok() ? m_value : std::move(otherwise); }

  /// What went wrong: its code is errc::none when nothing did.
  const kx::error& error() const { return m_error; }

 private:
  value_type m_value{};
  kx::error m_error{};
};

}  // namespace kx

#endif
