// The command line of the verbs that show tables.
#include <memory>

#include "tables/tables.h"

namespace {

using words = std::vector<std::string>;

void add_list(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand("list", "Who is there, and what is offered");
  const auto what = std::make_shared<words>();
  const auto names_only = std::make_shared<bool>();
  verb->add_option("WHAT", *what, "components or services, and a pattern as a shell has it for files");
  verb->add_flag("--names", *names_only, "Names alone, one a line");
  verb->callback([&given, what, names_only] { list(given, *what, *names_only); });
}

void add_stats(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand("stats", "What the core has counted");
  const auto prometheus = std::make_shared<bool>();
  verb->add_flag("--prometheus", *prometheus, "In the exposition format of Prometheus");
  verb->callback([&given, prometheus] { stats(given, *prometheus); });
}

void add_top(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand("top", "The busiest components, again and again; q ends it");
  const auto how = std::make_shared<top_options>();
  verb->add_option("-d", how->interval_s, "Seconds from one look to the next")
      ->capture_default_str()
      ->check([](const std::string& text) { return check_number(text, 0.01, 3600); });
  verb->add_option("-s", how->key, "What to sort by")
      ->capture_default_str()
      ->check(CLI::IsMember(top_keys()));
  add_count(*verb, given, "End after so many looks");
  verb->callback([&app, &given, how] { top(given, *how, end_of_stream(app, given)); });
}

void add_completion(CLI::App& app) {
  CLI::App* const verb = app.add_subcommand("completion", "A script for the completion in a shell");
  const auto shell = std::make_shared<std::string>();
  const auto line = std::make_shared<words>();
  verb->add_option("SHELL", *shell, "bash, zsh or fish; words is what the scripts call")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish", "words"}));
  verb->add_option("WORD", *line, "For words: the line up to the cursor");
  verb->callback([&app, shell, line] { completion(app, *shell, *line); });
}

}  // namespace

void add_table_verbs(CLI::App& app, options& given) {
  add_list(app, given);
  const auto name = std::make_shared<std::string>();
  CLI::App* const tree_verb = app.add_subcommand("tree", "Components, what each offers, and to whom");
  tree_verb->add_option("COMPONENT", *name, "This one alone");
  tree_verb->callback([&given, name] { tree(given, *name); });
  CLI::App* const status_verb = app.add_subcommand("status", "All that is known of a component or service");
  status_verb->add_option("NAME", *name, "The component or service")->required();
  status_verb->callback([&given, name] { status(given, *name); });
  CLI::App* const introspect_verb = app.add_subcommand("introspect", "What a service tells about itself");
  introspect_verb->add_option("SERVICE", *name, "The service")->required();
  introspect_verb->callback([&given, name] { introspect(given, *name); });
  add_stats(app, given);
  add_top(app, given);
  app.add_subcommand("doctor", "What is wrong on this machine, and what to do about it")->callback([&given] {
    doctor(given);
  });
  add_completion(app);
}
