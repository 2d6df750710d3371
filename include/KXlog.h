/// @file
/// Log lines: one test of the trace level, then one syslog call with a literal format.
///
///     KX_LOG_ERROR("bind of unixsocket %s failed - %s", path, strerror(errno));
///
/// writes "[ERROR] KXcomponent:120 (create_socket) - bind of unixsocket ... failed - ..." when the trace
/// level is at least 3. The line names the source file (without folder and extension), the line and the
/// function; the forms that end in _IN take the function's name as first argument, for a helper that writes a
/// line of the operation it works for. The text must be a string literal, with at most seven arguments. No
/// argument is evaluated when the line is not written.
///
/// While a line is being written the termination signals that a component handles are held back on the
/// thread, so that its signal handler, which may log too, never enters syslog a second time. `errno` survives
/// a log line. Applications are welcome to these macros, and in a component they should log through them or
/// hold the signals back themselves.
#ifndef KXLOG_H
#define KXLOG_H

#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <cstddef>
#include <initializer_list>

#include "trace.h"

namespace kxlog {

/// The trace level from which on the lines of each kind are written.
enum level_e : int {
  LEVEL_ERROR = 3,
  LEVEL_WARNING = 4,
  LEVEL_INFO = 6,
  LEVEL_DEBUG1 = 7,
  LEVEL_DEBUG2 = 8,
  LEVEL_DEBUG3 = 9
};

/// Whether lines of a level are written at present. Safe in a signal handler.
inline bool enabled(level_e level) { return g_traceObject != nullptr && g_traceObject->level >= level; }

/// Lives as long as one line is being written: holds the termination signals back and keeps `errno`.
class line_scope {
 public:
  [[gnu::noinline]] line_scope() noexcept : m_errno(errno) {
    sigset_t termination;
    sigemptyset(&termination);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE})
      sigaddset(&termination, signal);
    pthread_sigmask(SIG_BLOCK, &termination, &m_previous);
  }
  [[gnu::noinline]] ~line_scope() {
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    errno = m_errno;
  }
  line_scope(const line_scope&) = delete;
  line_scope& operator=(const line_scope&) = delete;

 private:
  int m_errno;
  sigset_t m_previous;
};

/// Reports a broken invariant through the tracing library, which writes a line of its own.
inline void assert_failed(const char* expression, const char* path, int line, const char* function) {
  const line_scope scope;
  logAssertFailed(expression, path, line, function);
}

/// Where the name of a source file begins in its path, and how long it is without its extension.
struct name_range {
  std::size_t begin;   ///< index of its first character
  std::size_t length;  ///< number of its characters
};

/// The range of the name in `path`.
constexpr name_range find_source_name(const char* path) {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t dot = 0;
  for (; path[end] != '\0'; ++end) {
    if (path[end] == '/') begin = end + 1;
    if (path[end] == '.') dot = end;
  }
  return {begin, (dot > begin ? dot : end) - begin};
}

/// The name of a source file, made when the file is compiled.
template <std::size_t length>
struct source_name {
  char text[length + 1];  ///< the name, with its NUL

  /// Takes the name out of `path`.
  constexpr explicit source_name(const char* path) : text{} {
    const std::size_t begin = find_source_name(path).begin;
    for (std::size_t i = 0; i < length; ++i)
      text[i] = path[begin + i];
  }
};

}  // namespace kxlog

/// Write one line of their level, in the name of the function around them.
/// @{
#define KX_LOG_ERROR(...) KX_LOG_ERROR_IN(__func__, __VA_ARGS__)
#define KX_LOG_WARNING(...) KX_LOG_WARNING_IN(__func__, __VA_ARGS__)
#define KX_LOG_INFO(...) KX_LOG_INFO_IN(__func__, __VA_ARGS__)
#define KX_LOG_DEBUG1(...) KX_LOG_DEBUG1_IN(__func__, __VA_ARGS__)
#define KX_LOG_DEBUG2(...) KX_LOG_DEBUG2_IN(__func__, __VA_ARGS__)
#define KX_LOG_DEBUG3(...) KX_LOG_DEBUG3_IN(__func__, __VA_ARGS__)
/// @}

/// Write one line of their level, in the name of `function`.
/// @{
#define KX_LOG_ERROR_IN(function, ...) KX_LOG_LINE(ERROR, LOG_ERR, function, __VA_ARGS__)
#define KX_LOG_WARNING_IN(function, ...) KX_LOG_LINE(WARNING, LOG_WARNING, function, __VA_ARGS__)
#define KX_LOG_INFO_IN(function, ...) KX_LOG_LINE(INFO, LOG_INFO, function, __VA_ARGS__)
#define KX_LOG_DEBUG1_IN(function, ...) KX_LOG_LINE(DEBUG1, LOG_DEBUG, function, __VA_ARGS__)
#define KX_LOG_DEBUG2_IN(function, ...) KX_LOG_LINE(DEBUG2, LOG_DEBUG, function, __VA_ARGS__)
#define KX_LOG_DEBUG3_IN(function, ...) KX_LOG_LINE(DEBUG3, LOG_DEBUG, function, __VA_ARGS__)
/// @}

/// @cond the inside of the macros
#define KX_LOG_LINE(level, priority, function, ...)                                                          \
  do {                                                                                                       \
    if (kxlog::enabled(kxlog::LEVEL_##level)) {                                                              \
      static constexpr kxlog::source_name<kxlog::find_source_name(__FILE__).length> kx_log_file(__FILE__);   \
      const kxlog::line_scope kx_log_scope;                                                                  \
      syslog(priority, "[" #level "] %s:%d (%s) - " KX_LOG_TEXT(__VA_ARGS__, 0), kx_log_file.text, __LINE__, \
             function KX_LOG_ARGUMENTS(__VA_ARGS__));                                                        \
    }                                                                                                        \
  } while (false)

// The text is the first of the macro's arguments; what follows it, if anything, goes to syslog with its
// comma.
#define KX_LOG_TEXT(text, ...) text
#define KX_LOG_ARGUMENTS(...) \
  KX_LOG_PICK(__VA_ARGS__, SOME, SOME, SOME, SOME, SOME, SOME, SOME, NONE, 0)(__VA_ARGS__)
#define KX_LOG_PICK(a, b, c, d, e, f, g, h, kind, ...) KX_LOG_ARGUMENTS_##kind
#define KX_LOG_ARGUMENTS_NONE(text)
#define KX_LOG_ARGUMENTS_SOME(text, ...) , __VA_ARGS__
/// @endcond

#endif
