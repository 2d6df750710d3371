#include "wording.h"

#include "printable.h"

decoded_payload payload_of(const entry& what) {
  const std::string_view bytes = what.has_message ? what.payload : what.body;
  decoded_payload payload;
  if (what.has_message) return decode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  payload.rest.assign(bytes.begin(), bytes.end());  // not even a header
  return payload;
}

std::string type_text(const entry& what) {
  if (!what.is_of_message()) return record_event_name(what.head.event);
  if (!what.has_message) return "?";
  return what.type >= MSG_REQ && what.type <= MSG_SIG ? msg_type_name(what.type)
                                                      : "?" + std::to_string(what.type);
}

std::string command_text(const entry& what, names& known) {
  if (!what.has_message) return "";
  if (what.is_management() && what.cmd <= CMD_KILL_COMPONENT) return mgmt_cmd_name(what.cmd);
  const std::string name = known.command_of(what);
  return name.empty() ? std::to_string(what.cmd) : printable(name);
}

std::string values_text(const entry& what, names& known) {
  const decoded_payload payload = payload_of(what);
  const std::vector<description::field> fields = known.fields_of(what, payload);
  std::string text;
  for (std::size_t i = 0; i < payload.values.size(); ++i) {
    if (i > 0) text += ' ';
    const bool is_named = i < fields.size();
    if (is_named && !fields[i].name.empty()) text += fields[i].name + '=';
    text += payload.values[i].text();
    if (is_named && !fields[i].unit.empty()) text += ' ' + fields[i].unit;
  }
  if (!payload.rest.empty()) text += (text.empty() ? "" : " ") + decoded_payload{{}, payload.rest}.text();
  return printable(text);
}

std::string note_text(const entry& what) {
  switch (what.head.event) {
    case RECORD_QUEUED:
      return "waits in the core: the receiver's socket is full";
    case RECORD_DELIVERED:
      return "has waited in the core";
    case RECORD_REFUSED:
      return "refused: " + printable(what.head.reason);
    case RECORD_DROPPED:
      return "dropped: " + printable(what.head.reason);
    default:
      return "";
  }
}
