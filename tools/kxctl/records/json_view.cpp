// Records as JSON, an object a line.
#include "shell.h"
#include "view.h"
#include "wording.h"

namespace {

using nlohmann::json;

json about(const sight& seen) {
  const record& head = seen.what.head;
  json object = {{"event", record_event_name(head.event)},
                 {"sequence", head.sequence},
                 {"time", head.time_ns},
                 {"monotonic", head.monotonic_ns},
                 {"from", head.sender},
                 {"to", head.receiver},
                 {"service", head.service}};
  if (head.sent_ns != 0) object["sent"] = head.sent_ns;
  if (head.pid != 0) object["pid"] = head.pid;
  if (!head.reason.empty()) object["reason"] = head.reason;
  if (seen.lost > 0) object["lost"] = seen.lost;
  object["management"] = seen.what.is_management();
  return object;
}

json message(const entry& what, names& known) {
  const decoded_payload payload = payload_of(what);
  json object = payload.json();
  if (!what.has_message) return object;
  object.update({{"dst_siid", what.dst_siid},
                 {"src_siid", what.src_siid},
                 {"type", type_text(what)},
                 {"cmd", what.cmd},
                 {"msg_id", what.msg_id}});
  const std::string command = command_text(what, known);
  if (command != std::to_string(what.cmd)) object["command"] = command;
  for (const description::field& each : known.fields_of(what, payload))
    object["names"].push_back(each.name);
  return object;
}

class json_view : public view {
 public:
  json_view(std::ostream& to, names& known) : m_to(to), m_names(known) {}

  void show(const sight& seen) override {
    json object = about(seen);
    if (!seen.what.body.empty()) object.update(message(seen.what, m_names));
    if (seen.step.kind == exchanges::DONE) {
      object["request"] = seen.step.of->sequence;
      object["after"] = seen.step.of->total_ns();
    }
    m_to << dump(object) << '\n';
  }

 private:
  std::ostream& m_to;
  names& m_names;
};

}  // namespace

std::unique_ptr<view> make_json_view(std::ostream& to, names& known) {
  return std::make_unique<json_view>(to, known);
}
