// The command line of replay.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "replay/replay.h"

namespace {

double rate_of(const std::string& text) {
  if (text == "max") return 0;
  std::size_t used = 0;
  double rate = 0;
  try {
    rate = std::stod(text, &used);
  } catch (const std::exception&) {
  }
  if (used != text.size() || !(rate > 0))
    throw failure(USAGE, "a rate is a number above 0, or max, not " + text);
  return rate;
}

void replay(const CLI::App& app, const options& given, const replay_options& what) {
  const filter wanted(what.filter);
  std::ifstream file;
  if (what.file != "-") file.open(what.file, std::ios::binary);
  if (what.file != "-" && !file) throw failure(REFUSED, what.file + ": " + strerror(errno));
  if (what.step && what.file == "-") throw failure(USAGE, "with --step the recording is to be a file");
  const recorded_calls recorded(what.file == "-" ? std::cin : file, what.file, what.service, wanted);
  if (what.as == "client") return replay_as_client(given, what, recorded);
  replay_as_server(given, what, recorded, end_of_stream(app, given));
}

}  // namespace

void add_replay_verb(CLI::App& app, options& given) {
  CLI::App* const verb = app.add_subcommand(
      "replay", "Send the requests of a recording again and compare the answers; or answer in their place");
  const auto what = std::make_shared<replay_options>();
  const auto rate = std::make_shared<std::string>("1");
  verb->add_option("FILE", what->file, "The recording, - for standard input")->required();
  verb->add_option("SERVICE", what->service, "The service that is asked, or stood in for")->required();
  verb->add_option("FILTER", what->filter, "Which of its messages, as for show");
  verb->add_option("--as", what->as, "client: send the requests; server: offer the service and answer")
      ->check(CLI::IsMember({"client", "server"}))
      ->capture_default_str();
  verb->add_option("--rate", *rate, "So many times as fast as it was, or max")->capture_default_str();
  verb->add_flag("--step", what->step, "Send each request when return is pressed");
  verb->add_flag("--expect", what->expect, "End with status 1 when something is not as recorded");
  verb->add_option("--ignore", what->ignore,
                   "Fields of answers that are not compared: names, or numbers from 1 on")
      ->delimiter(',');
  add_count(*verb, given, "End after so many");
  verb->callback([&app, &given, what, rate] {
    what->rate = rate_of(*rate);
    replay(app, given, *what);
  });
}
