// kxctl: the bus from a shell.
#include <csignal>
#include <cstdio>
#include <exception>

#include "printable.h"
#include "shell.h"

namespace {

int complain(status_e status, const char* why) {
  if (*why != '\0') std::fprintf(stderr, "kxctl: %s\n", why);
  return status;
}

std::string usage_problem(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> rest = app.remaining();
  if (!app.get_subcommands().empty() || rest.empty()) return error.what();
  return "there is no verb '" + printable(rest.front()) + "'";
}

int run(int argc, char** argv) {
  CLI::App app("See, call, record and replay the kestrix bus.", "kxctl");
  options given;
  app.set_version_flag("--version", "kxctl " KX_VERSION);
  add_common_options(app, given);
  app.require_subcommand(1);
  app.fallthrough();
  add_bus_verbs(app, given);
  add_table_verbs(app, given);
  add_record_verbs(app, given);
  add_replay_verb(app, given);
  try {
    app.parse(argc, argv);
    return DONE;
  } catch (const CLI::Success& asked) {  // --help, --version
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return complain(USAGE, (usage_problem(app, error) + ": see kxctl --help").c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const failure& error) {
    return complain(error.status, error.what());
  } catch (const std::exception& error) {
    return complain(REFUSED, error.what());
  }
}
