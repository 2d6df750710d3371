// kxctl: the bus from a shell.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "printable.h"
#include "shell.h"

namespace {

int complain(status_e status, const char* why) {
  if (*why != '\0') std::fprintf(stderr, "kxctl: %s\n", printable(why).c_str());
  return status;
}

// What is opened later must not be taken for a standard stream that was closed.
void occupy_standard_streams() {
  int taken = 0;
  while (taken >= 0 && taken <= STDERR_FILENO)
    taken = open("/dev/null", O_PATH | O_CLOEXEC);
  close(taken);
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
  occupy_standard_streams();
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const failure& error) {
    return complain(error.status, error.what());
  } catch (const std::exception& error) {
    return complain(REFUSED, error.what());
  }
}
