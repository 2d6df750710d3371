// What the verbs of kxctl share: the options of all of them, and how one ends.
#ifndef KXCTL_SHELL_H
#define KXCTL_SHELL_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

enum status_e {
  DONE = 0,
  REFUSED = 1,  // the other side answered ERR
  USAGE = 2,
  NO_CORE = 3,  // or not permitted
  NO_INTROSPECTION = 4,
  TIMED_OUT = 124,
  INTERRUPTED = 130
};

// Ends the program with this status, and one line on standard error unless the text is empty.
struct failure : std::runtime_error {
  failure(status_e how, const std::string& text) : std::runtime_error(text), status(how) {}
  const status_e status;
};

using steady = std::chrono::steady_clock;

struct options {
  bool json = false;
  bool no_header = false;
  double timeout_s = 10;
  unsigned long count = 0;  // of a stream, 0: without an end

  // The end of what begins now.
  steady::time_point deadline() const {
    return steady::now() +
           std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(timeout_s));
  }
};

// The options that every verb has.
void add_common_options(CLI::App& app, options& given);

// Adds the option -n of a stream.
void add_count(CLI::App& verb, options& given, const std::string& help);

// Whether a text is a number within bounds, as CLI11 asks: why not, or an empty text.
std::string check_number(const std::string& text, double least, double most);

// When a stream ends: never, unless the command line says so.
steady::time_point end_of_stream(const CLI::App& app, const options& given);

// A text for JSON, whatever its bytes are: what is no UTF-8 is replaced.
inline std::string dump(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Adds verbs to the command line; their callbacks carry them out. The options outlive the verbs.
void add_bus_verbs(CLI::App& app, options& given);  // call, send, emit, serve, listen, wait
void add_table_verbs(CLI::App& app,
                     options& given);  // list, tree, status, introspect, stats, top, doctor, completion
void add_record_verbs(CLI::App& app, options& given);  // monitor, capture, show
void add_replay_verb(CLI::App& app, options& given);

#endif
