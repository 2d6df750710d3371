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

void add_count(CLI::App& verb, options& given, const std::string& help) {
  verb.add_option("-n", given.count, help)->check([](const std::string& text) {
    const bool is_count =
        !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == text.npos;
    return is_count ? "" : "'" + text + "' is no count up to 999999999";
  });
}

std::string check_number(const std::string& text, double least, double most) {
  double number = 0;
  const bool is_within = CLI::detail::lexical_cast(text, number) && number >= least && number <= most;
  return is_within ? ""
                   : "'" + text + "' is not between " + CLI::detail::to_string(least) + " and " +
                         CLI::detail::to_string(most);
}

steady::time_point end_of_stream(const CLI::App& app, const options& given) {
  return app.get_option("--timeout")->count() > 0 ? given.deadline() : steady::time_point::max();
}
