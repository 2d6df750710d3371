// The command line of the verbs for records.
#include <memory>

#include "description_source.h"
#include "shell.h"
#include "verbs.h"

namespace {

constexpr char filter_help[] =
    "What is wanted: service=sysmon.* component=watch type=REQ,ERR cmd=1 id=0x1001 event!=refused mgmt";

record_options common(const CLI::App& app, const options& given, std::vector<std::string> terms) {
  return {given, end_of_stream(app, given), std::move(terms)};
}

CLI::App* add_verb(CLI::App& app, options& given, const char* name, const char* help,
                   const char* count_help) {
  CLI::App* const verb = app.add_subcommand(name, help);
  add_count(*verb, given, count_help);
  return verb;
}

void add_monitor(CLI::App& app, options& given) {
  CLI::App* const verb =
      add_verb(app, given, "monitor", "Show all traffic, as it comes", "End after so many");
  const auto terms = std::make_shared<std::vector<std::string>>();
  verb->add_option("FILTER", *terms, filter_help);
  verb->callback([&app, &given, terms] { monitor(common(app, given, *terms), fetch_description); });
}

void add_capture(CLI::App& app, options& given) {
  CLI::App* const verb =
      add_verb(app, given, "capture", "Record the traffic in a file for show, replay and Wireshark",
               "End after so many records, with --ring after so many files");
  const auto what = std::make_shared<capture_options>();
  const auto terms = std::make_shared<std::vector<std::string>>();
  verb->add_option("-w", what->file,
                   "The file, - for standard output; if none is named, its name is the time");
  verb->add_option("FILTER", *terms, filter_help);
  CLI::Option* const ring = verb->add_option("--ring", what->ring, "Keep the last 30s or 8M in memory");
  verb->add_option("--on", what->on, "Write the ring when a record matches this filter")->needs(ring);
  verb->add_option("--rotate", what->rotate, "10M:5: begin a next file after 10 MiB, and keep 5")
      ->excludes(ring);
  verb->callback([&app, &given, what, terms] { capture(common(app, given, *terms), *what); });
}

void add_show(CLI::App& app, options& given) {
  CLI::App* const verb = add_verb(app, given, "show", "Show a recording", "Show no more than so many");
  const auto what = std::make_shared<show_options>();
  const auto terms = std::make_shared<std::vector<std::string>>();
  verb->add_option("FILE", what->file, "The recording, - for standard input")->required();
  verb->add_option("FILTER", *terms, filter_help);
  CLI::Option_group* const as = verb->add_option_group("as");
  as->add_option("--sequence", what->sequence, "As a sequence diagram: mermaid or svg")
      ->check(CLI::IsMember({"mermaid", "svg"}))
      ->expected(0, 1)
      ->default_str("mermaid");
  as->add_flag("--perfetto", what->perfetto, "As a trace for the Perfetto viewer");
  as->add_flag("--stats", what->stats, "The time that the answers of each service took, and where it went");
  as->require_option(0, 1);
  verb->callback([&app, &given, what, terms] { show(common(app, given, *terms), *what); });
}

}  // namespace

void add_record_verbs(CLI::App& app, options& given) {
  add_monitor(app, given);
  add_capture(app, given);
  add_show(app, given);
}
