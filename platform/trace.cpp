#include "trace.h"

#include <syslog.h>

#include <cstdlib>

namespace {

constexpr int default_level = 4;
constexpr int highest_level = 9;

int level_from_environment() {
  const char* text = std::getenv("KXTRACE_LEVEL");
  if (text == nullptr) return default_level;
  char* end = nullptr;
  const long level = std::strtol(text, &end, 10);
  const bool valid = end != text && *end == '\0' && level >= 0 && level <= highest_level;
  return valid ? static_cast<int>(level) : default_level;
}

trace_object_t trace_object{level_from_environment()};

}  // namespace

trace_object_t* g_traceObject = &trace_object;

void logAssertFailed(const char* expression, const char* path, int line, const char* function) {
  syslog(LOG_ERR, "assertion \"%s\" failed at %s:%d (%s)", expression, path, line, function);
}
