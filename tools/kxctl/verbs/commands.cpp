// The command line of the verbs that use the bus.
#include <memory>

#include "verbs/verbs.h"

namespace {

using words = std::vector<std::string>;

// The usage of a verb whose words CLI11 does not know.
class usage_with : public CLI::Formatter {
 public:
  explicit usage_with(std::string described) : m_words(std::move(described)) {}

  std::string make_usage(const CLI::App* app, std::string name) const override {
    return app->get_description() + "\nUsage: " + name + " [OPTIONS] " + m_words + "\n";
  }
  std::string make_description(const CLI::App*) const override { return {}; }

 private:
  std::string m_words;
};

// A verb with the words SERVICE[:CMD] [SIGNATURE VALUE...]. Behind the service nothing is an option: values
// may begin with '-'.
CLI::App* add_message_verb(CLI::App& app, options& given, const char* name, const char* help) {
  CLI::App* const verb = app.add_subcommand(name, help);
  verb->fallthrough(false)->prefix_command();
  verb->formatter(std::make_shared<usage_with>("SERVICE[:COMMAND] [SIGNATURE VALUE...]"));
  add_common_options(*verb, given);
  return verb;
}

void add_emit(CLI::App& app, options& given) {
  CLI::App* const verb = add_message_verb(app, given, "emit", "Offer a signal, send it once, and leave");
  const auto waits = std::make_shared<bool>();
  verb->add_flag("--wait", *waits, "Wait for a first subscriber");
  verb->callback([&given, verb, waits] { emit(given, outgoing(verb->remaining()), *waits); });
}

void add_listen(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand("listen", "Show signals as they come");
  const auto services = std::make_shared<words>();
  verb->add_option("SERVICE", *services, "The signals")->required();
  add_count(*verb, given, "End after so many");
  verb->callback([&app, &given, services] { listen(given, *services, end_of_stream(app, given)); });
}

void add_serve(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand(
      "serve", "Offer a function: each request runs a command, whose output is the answer");
  const auto what = std::make_shared<serve_options>();
  verb->add_option("SERVICE", what->service, "The function")->required();
  verb->add_option("COMMAND", what->command, "Behind --: the command, which gets the values as arguments")
      ->required();
  verb->add_option("--signature", what->signature,
                   "The types of the answer's values, of which each line of the output is one (s: all of it)")
      ->capture_default_str();
  verb->add_option("--jobs", what->jobs, "How many commands run side by side")
      ->capture_default_str()
      ->check(CLI::Range(1, 64));
  add_count(*verb, given, "End after so many requests");
  verb->callback([&app, &given, what] { serve(given, *what, end_of_stream(app, given)); });
}

void add_wait(CLI::App& app, options& given) {
  CLI::App* const verb =
      app.add_subcommand("wait", "Wait until a service is offered, or a component is there");
  const auto what = std::make_shared<wait_options>();
  verb->add_option("NAME", what->name, "The service")->required();
  verb->add_flag("--component", what->is_component, "NAME is that of a component");
  verb->add_flag("--gone", what->gone, "Wait for the end");
  verb->callback([&given, what] { wait(given, *what); });
}

}  // namespace

void add_bus_verbs(CLI::App& app, options& given) {
  CLI::App* const calling = add_message_verb(app, given, "call", "Call a function, and show the answer");
  calling->callback([&given, calling] { call(given, outgoing(calling->remaining())); });
  CLI::App* const sending = add_message_verb(app, given, "send", "Send a signal to a function's component");
  sending->callback([&given, sending] { send(given, outgoing(sending->remaining())); });
  add_emit(app, given);
  add_serve(app, given);
  add_listen(app, given);
  add_wait(app, given);
}
