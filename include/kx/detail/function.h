// A callable that may hold what can only be moved, and allocates for none that is small.
#ifndef KX_DETAIL_FUNCTION_H
#define KX_DETAIL_FUNCTION_H

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace kx::detail {

template <class Signature>
class function;

// Empty, or holds a callable: in itself if that has at most 8 pointers' room and moves without throwing.
template <class Result, class... Arguments>
class function<Result(Arguments...)> {
 public:
  function() = default;
  template <class F, class = std::enable_if_t<std::is_invocable_r_v<Result, F&, Arguments...> &&
                                              !std::is_same_v<F, function>>>
  function(F callable) {  // NOLINT(google-explicit-constructor): as std::function's
    if constexpr (is_small<F>) {
      new (m_room) F(std::move(callable));
      m_kind = &small_kind<F>;
    } else {
      auto boxed = [box = std::make_unique<F>(std::move(callable))](Arguments... arguments) -> Result {
        return (*box)(std::forward<Arguments>(arguments)...);
      };
      new (m_room) decltype(boxed)(std::move(boxed));
      m_kind = &small_kind<decltype(boxed)>;
    }
  }
  function(function&& other) noexcept { take(other); }
  function& operator=(function&& other) noexcept {
    if (this == &other) return *this;
    reset();
    take(other);
    return *this;
  }
  ~function() { reset(); }

  explicit operator bool() const { return m_kind != nullptr; }
  Result operator()(Arguments... arguments) {
    return m_kind->call(m_room, std::forward<Arguments>(arguments)...);
  }

 private:
  struct kind {
    Result (*call)(void*, Arguments&&...);
    void (*move)(void* to, void* from);  // leaves nothing at `from`
    void (*destroy)(void*);
  };

  static constexpr std::size_t room = 8 * sizeof(void*);
  template <class F>
  static constexpr bool is_small =
      sizeof(F) <= room && alignof(F) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<F>;
  template <class F>
  static constexpr kind small_kind = {[](void* at, Arguments&&... arguments) -> Result {
                                        return (*static_cast<F*>(at))(std::forward<Arguments>(arguments)...);
                                      },
                                      [](void* to, void* from) {
                                        new (to) F(std::move(*static_cast<F*>(from)));
                                        static_cast<F*>(from)->~F();
                                      },
                                      [](void* at) { static_cast<F*>(at)->~F(); }};

  void take(function& other) {
    m_kind = std::exchange(other.m_kind, nullptr);
    if (m_kind != nullptr) m_kind->move(m_room, other.m_room);
  }
  void reset() {
    if (const kind* const held = std::exchange(m_kind, nullptr)) held->destroy(m_room);
  }

  alignas(std::max_align_t) unsigned char m_room[room];
  const kind* m_kind = nullptr;
};

}  // namespace kx::detail

#endif
