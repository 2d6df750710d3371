// Completion in shells. What may come next the tool says itself: the scripts only ask it.
#include <algorithm>
#include <set>

#include "columns.h"
#include "session.h"
#include "standard_output.h"
#include "tables/tables.h"

namespace {

using words = std::vector<std::string>;

constexpr double patience_s = 1;

// clang-format off
constexpr char bash[] = R"sh(# Completion of kxctl for bash: eval "$(kxctl completion bash)"
_kxctl() {
  local each word=${COMP_WORDS[COMP_CWORD]}
  COMPREPLY=()
  while IFS= read -r each; do
    [[ $each == "$word"* ]] && COMPREPLY+=("$(printf %q "$each")")
  done < <(kxctl completion words -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _kxctl kxctl
)sh";

constexpr char zsh[] = R"sh(#compdef kxctl
# Completion of kxctl for zsh: eval "$(kxctl completion zsh)", or as a file _kxctl in a folder of $fpath.
_kxctl() {
  local -a found
  found=(${(f)"$(kxctl completion words -- "${(@)words[2,CURRENT]}" 2>/dev/null)"})
  compadd -a found || _files
}
if [[ $zsh_eval_context[-1] == loadautofunc ]]; then _kxctl "$@"; else compdef _kxctl kxctl; fi
)sh";

constexpr char fish[] = R"sh(# Completion of kxctl for fish: kxctl completion fish | source
function __kxctl_words
  set -l tokens (commandline -opc)
  set -e tokens[1]
  kxctl completion words -- $tokens (commandline -ct) 2>/dev/null
end
complete -c kxctl -f -a '(__kxctl_words)'
complete -c kxctl -n '__fish_seen_subcommand_from capture replay show' -F
)sh";
// clang-format on

bool is_one_of(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void append_names(words& to, const session::rows& rows, const char* key) {
  for (const nlohmann::json& each : rows)
    if (each.value("component", "-") != "") to.push_back(cell(each, key));
}

// What the words of a verb may be.
words arguments_of(const std::string& verb) {
  if (verb == "completion") return {"bash", "zsh", "fish"};
  words found;
  if (verb == "list") found = {"components", "services"};
  options brief;
  brief.timeout_s = patience_s;
  const bool takes_service =
      is_one_of(verb, {"call", "send", "emit", "listen", "wait", "introspect", "replay"});
  const bool takes_component = is_one_of(verb, {"tree"});
  const bool takes_both = is_one_of(verb, {"status"});
  if (!takes_service && !takes_component && !takes_both) return found;
  bus_client client(brief.deadline());
  session bus(client, brief);
  if (!takes_component) append_names(found, bus.services(), "service");
  if (!takes_service) append_names(found, bus.components(), "component");
  return found;
}

std::set<std::string> options_of(const CLI::App& app, const CLI::App* verb) {
  std::set<std::string> found;
  for (const CLI::App* const of : {&app, verb == nullptr ? &app : verb})
    for (const CLI::Option* const each : of->get_options())
      for (const std::string& name : each->get_lnames())
        found.insert("--" + name);
  return found;
}

// What may stand in place of the last of these words.
words candidates(const CLI::App& app, const words& line) {
  const auto verbs = app.get_subcommands([](const CLI::App*) { return true; });
  const CLI::App* verb = nullptr;
  for (auto each = line.begin(); each + 1 < line.end() && verb == nullptr; ++each)
    for (const CLI::App* const known : verbs)
      if (known->get_name() == *each) verb = known;
  if (!line.empty() && line.back().rfind('-', 0) == 0) {
    const std::set<std::string> found = options_of(app, verb);
    return {found.begin(), found.end()};
  }
  if (verb != nullptr) return arguments_of(verb->get_name());
  words names;
  for (const CLI::App* const each : verbs)
    names.push_back(each->get_name());
  return names;
}

}  // namespace

void completion(const CLI::App& app, const std::string& shell, const words& line) {
  if (shell == "bash") return write_out(bash);
  if (shell == "zsh") return write_out(zsh);
  if (shell == "fish") return write_out(fish);
  std::string text;
  for (const std::string& each : candidates(app, line))
    text += each + "\n";
  write_out(text);
}
