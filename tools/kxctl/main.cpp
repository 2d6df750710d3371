// kxctl: the bus from a shell.
#include <cstdio>
#include <exception>

#include "shell.h"

namespace {

int complain(status_e status, const char* why) {
  if (*why != '\0') std::fprintf(stderr, "kxctl: %s\n", why);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("See, call, record and replay the kestrix bus.", "kxctl");
  options given;
  app.set_version_flag("--version", "kxctl " KX_VERSION);
  app.add_flag("--json", given.json, "Write JSON: one object, or one a line for what comes in time");
  app.add_flag("--no-header", given.no_header, "No line with the names of columns");
  app.add_option("--timeout", given.timeout_s, "Seconds after which whatever waits ends with status 124")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.require_subcommand(1);
  app.fallthrough();
  add_record_verbs(app, given);
  try {
    app.parse(argc, argv);
    return DONE;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? DONE : USAGE;
  } catch (const failure& error) {
    return complain(error.status, error.what());
  } catch (const std::exception& error) {
    return complain(REFUSED, error.what());
  }
}
