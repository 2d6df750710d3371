// The members of small aggregates, and the elements of arrays, pairs and tuples, as tuples of references.
#ifndef KX_DETAIL_FIELDS_H
#define KX_DETAIL_FIELDS_H

#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kx::detail {

template <class T>
using plain = std::remove_cv_t<std::remove_reference_t<T>>;

// Whatever a member wants to be made of.
struct anything {
  template <class T>
  operator T() const;  // NOLINT(google-explicit-constructor): only what is implicit can be counted
};

template <std::size_t>
using one_thing = anything;

template <class T, class Indices, class = void>
struct is_made_of : std::false_type {};
template <class T, std::size_t... index>
struct is_made_of<T, std::index_sequence<index...>, std::void_t<decltype(T{one_thing<index>{}...})>>
    : std::true_type {};

// How many members an aggregate has; 9 when there are more.
template <class T, std::size_t count = 9>
constexpr std::size_t count_fields() {
  if constexpr (count == 0 || is_made_of<T, std::make_index_sequence<count>>::value) {
    return count;
  } else {
    return count_fields<T, count - 1>();
  }
}

template <class T>
struct is_tuple : std::false_type {};
template <class... T>
struct is_tuple<std::tuple<T...>> : std::true_type {};
template <class First, class Second>
struct is_tuple<std::pair<First, Second>> : std::true_type {};
template <class T, std::size_t size>
struct is_tuple<std::array<T, size>> : std::true_type {};

template <class T>
constexpr bool is_aggregate = is_tuple<T>::value || std::is_aggregate_v<T>;

template <std::size_t count>
using members = std::integral_constant<std::size_t, count>;

template <class T>
auto tie_members(T& of, members<1>) {
  auto& [a] = of;
  return std::tie(a);
}
template <class T>
auto tie_members(T& of, members<2>) {
  auto& [a, b] = of;
  return std::tie(a, b);
}
template <class T>
auto tie_members(T& of, members<3>) {
  auto& [a, b, c] = of;
  return std::tie(a, b, c);
}
template <class T>
auto tie_members(T& of, members<4>) {
  auto& [a, b, c, d] = of;
  return std::tie(a, b, c, d);
}
template <class T>
auto tie_members(T& of, members<5>) {
  auto& [a, b, c, d, e] = of;
  return std::tie(a, b, c, d, e);
}
template <class T>
auto tie_members(T& of, members<6>) {
  auto& [a, b, c, d, e, f] = of;
  return std::tie(a, b, c, d, e, f);
}
template <class T>
auto tie_members(T& of, members<7>) {
  auto& [a, b, c, d, e, f, g] = of;
  return std::tie(a, b, c, d, e, f, g);
}
template <class T>
auto tie_members(T& of, members<8>) {
  auto& [a, b, c, d, e, f, g, h] = of;
  return std::tie(a, b, c, d, e, f, g, h);
}

template <class T>
auto fields_of(T& of) {
  if constexpr (is_tuple<std::remove_const_t<T>>::value) {
    return std::apply([](auto&... each) { return std::tie(each...); }, of);
  } else {
    constexpr std::size_t count = count_fields<std::remove_const_t<T>>();
    static_assert(count >= 1 && count <= 8, "an aggregate that travels has 1 to 8 members");
    return tie_members(of, members<count>{});
  }
}

template <class... T>
struct type_list {};

template <class T>
struct listed;
template <class... T>
struct listed<std::tuple<T&...>> {
  using type = type_list<T...>;
};

template <class T>
using field_types = typename listed<decltype(fields_of(std::declval<T&>()))>::type;

// The sum of what codecs take at least.
template <template <class, class> class Codec, class... T>
constexpr std::size_t least_of(type_list<T...>) {
  return (Codec<T, void>::least + ... + 0);
}

}  // namespace kx::detail

#endif
