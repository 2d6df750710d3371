#include "shell.h"

namespace {

constexpr double most_seconds = 1e9;

std::string check_seconds(const std::string& text) {
  double seconds = 0;
  const bool is_number = CLI::detail::lexical_cast(text, seconds);
  return is_number && seconds > 0 && seconds <= most_seconds ? "" : text + " is no number of seconds above 0";
}

}  // namespace

void add_common_options(CLI::App& app, options& given) {
  app.add_flag("--json", given.json, "Write JSON: one object, or one a line for what comes in time");
  app.add_flag("--no-header", given.no_header, "No line with the names of columns");
  app.add_option("--timeout", given.timeout_s,
                 "Seconds after which whatever waits ends with status 124; a stream has no end without it")
      ->capture_default_str()
      ->check(check_seconds);
}

steady::time_point end_of_stream(const CLI::App& app, const options& given) {
  return app.get_option("--timeout")->count() > 0 ? given.deadline() : steady::time_point::max();
}
