#include "sequence.h"

#include "printable.h"
#include "wording.h"

namespace {

constexpr char core[] = "kxcore";

arrow::kind_e kind_of(const entry& what) {
  if (what.is_failure()) return arrow::FAILURE;
  switch (what.type) {
    case MSG_REQ:
      return arrow::REQUEST;
    case MSG_RSP:
      return arrow::ANSWER;
    case MSG_ERR:
      return arrow::ERROR_ANSWER;
    default:
      return arrow::SIGNAL;
  }
}

}  // namespace

void sequence::add(const sight& seen) {
  const entry& what = seen.what;
  if (!what.is_of_message()) return;
  const std::size_t from = participant(what.head.sender);
  const std::size_t to = participant(what.is_failure() ? core : what.head.receiver);  // it comes no further
  m_arrows.push_back({what.head.time_ns, from, to, kind_of(what), label_of(seen)});
}

std::size_t sequence::participant(std::string_view name) {
  const std::string shown = name.empty() ? "?" : printable(name);
  const auto added = m_places.emplace(shown, m_participants.size());
  if (added.second) m_participants.push_back(shown);
  return added.first->second;
}

// An answer stands below its request, and need not repeat its service and command.
std::string sequence::label_of(const sight& seen) const {
  const entry& what = seen.what;
  const bool is_matched = seen.step.kind == exchanges::DONE;
  std::string label = what.has_message && what.type == MSG_REQ ? "" : type_text(what);
  const auto append = [&label](const std::string& text) {
    if (!text.empty()) label += (label.empty() ? "" : " ") + text;
  };
  if (!is_matched && !what.is_management()) append(printable(what.head.service));
  const std::string command = command_text(what, m_names);
  const bool is_number = command == std::to_string(what.cmd);
  if (!is_matched) append(is_number ? "cmd " + command : command);
  append(values_text(what, m_names));
  if (is_matched) append("(" + duration_text(seen.step.of->total_ns()) + ")");
  const std::string note = note_text(what);
  if (!note.empty()) append("-- " + note);
  return label;
}
