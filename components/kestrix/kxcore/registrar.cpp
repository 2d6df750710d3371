#include "registrar.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "KXconnection.h"
#include "KXlog.h"
#include "introspection.h"
#include "management.h"
#include "payload.h"

namespace {

constexpr char unparsable[] = "the payload does not parse";
constexpr char unsuitable_name[] = "the name is empty, longer than 255 bytes or has control characters";
constexpr char foreign_siid[] = "the siid is not the sender's";

// Names go into lines of the log.
bool is_name(const std::string& text) {
  return !text.empty() && text.size() <= 255 && std::none_of(text.begin(), text.end(), is_control);
}

std::string quoted(const std::string& service) { return "'" + service + "'"; }

std::string limit_reached(const std::string& service) {
  return "no " + quoted(service) + ": it holds " + std::to_string(peer::max_grants) +
         " services and subscriptions, which is the limit";
}

const char* kind_of(bool is_signal) { return is_signal ? "signal" : "function"; }

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

const registrar::command registrar::commands[] = {
    {CMD_REG_COMPONENT, &registrar::register_peer}, {CMD_UNREG_COMPONENT, &registrar::unregister_peer},
    {CMD_REG_FUNCTION, &registrar::offer},          {CMD_REG_SIGNAL, &registrar::offer},
    {CMD_UNREG_FUNCTION, &registrar::withdraw},     {CMD_UNREG_SIGNAL, &registrar::withdraw},
    {CMD_SUB_FUNCTION, &registrar::subscribe},      {CMD_SUB_SIGNAL, &registrar::subscribe},
    {CMD_UNSUB_FUNCTION, &registrar::unsubscribe},  {CMD_UNSUB_SIGNAL, &registrar::unsubscribe},
};

registrar::registrar(roster& peers, strangers& outsiders, reporter& report, std::string data_path)
    : m_peers(peers), m_strangers(outsiders), m_report(report), m_data_path(std::move(data_path)) {}

void registrar::serve(const sender& from, const KXmessage& message) {
  const msg_header_t& header = *message.m_header;
  const request received = {from, m_peers.find_mgmt(from), message};
  const std::string name = strangers::name_of(received.from, from);
  KX_LOG_DEBUG3("RX : %s : %s : %s (id=%d)", name.c_str(), msg_type_name(header.msg_type),
                mgmt_cmd_name(header.cmd), ntohl(header.msg_id));
  if (header.msg_type != MSG_REQ && header.msg_type != MSG_SIG)
    return m_strangers.drop(received.from, from, "it is neither a request nor a notice", &message);
  m_strangers.show(RECORD_RECEIVED, received.from, from, &message);
  if (is_of_the_past(received)) return;

  KXmessage reply = make_management(MSG_RSP, header.cmd, ntohl(header.msg_id));
  const std::string refusal = carry_out(received, reply);  // it may be the end of the sender
  if (!refusal.empty()) {
    refuse(received, name, refusal);
    reply = make_management(MSG_ERR, header.cmd, ntohl(header.msg_id));
    reply << refusal;
  }
  if (header.msg_type == MSG_REQ) respond(from, reply);
}

// Whether it is what a component gave back at its end, when a message to its closed sockets has told the core
// of that end before.
bool registrar::is_of_the_past(const request& received) const {
  const bool gives_back = facts_of(received.cmd()).kind == WITHDRAWAL;
  if (received.from != nullptr || !gives_back || !m_strangers.is_on_bus(received.origin.path)) return false;
  const socket_file file(received.origin.path);
  return !file.exists() || m_peers.is_closed(file);
}

void registrar::refuse(const request& received, const std::string& name, const std::string& reason) {
  const char* const cmd = mgmt_cmd_name(received.cmd());
  peer* const from = m_peers.find_mgmt(received.origin);
  tally& count = m_strangers.tally_of(from);
  count.note(reason);
  if (reporter::is_reported(++count.refused))
    m_report.problem("refused %s of %s (%lu so far): %s", cmd, name.c_str(), count.refused, reason.c_str());
  m_report.events.note(EVENT_REFUSED, from == nullptr ? std::string_view(name) : from->label, {},
                       std::string(cmd) + ": " + reason);
  m_strangers.show(RECORD_REFUSED, from, received.origin, &received.message, reason);
}

std::string registrar::carry_out(const request& received, KXmessage& reply) {
  const mgmt_cmd_e cmd = received.cmd();
  if (awaits_reply(cmd) && received.message.m_header->msg_type != MSG_REQ) return "it is not a request";
  if (cmd != CMD_REG_COMPONENT && received.from == nullptr) return "the sender is not registered";
  const auto row = std::find_if(std::begin(commands), std::end(commands),
                                [cmd](const command& each) { return each.cmd == cmd; });
  if (row == std::end(commands)) return "the core does not serve this command";
  try {
    return (this->*row->handler)(received, reply);
  } catch (const std::bad_alloc&) {
    return "no memory";
  }
}

void registrar::respond(const sender& to, const KXmessage& reply) {
  peer* const registered = m_peers.find_mgmt(to);
  if (registered != nullptr && !registered->is_gone) {
    m_peers.send(*registered, registered->mgmt, reply, nullptr);
  } else {
    m_strangers.answer(to, reply);
  }
}

// --- components ---

std::string registrar::register_peer(const request& received, KXmessage& reply) {
  std::string name;
  std::string data_path;
  payload values(received.message);
  if (!values.take(name) || !values.take(data_path)) return unparsable;
  if (!is_name(name)) return unsuitable_name;
  if (m_closed) return "the core is stopping";
  std::string reason = check_sockets(received.origin, name, data_path);
  if (!reason.empty()) return reason;

  auto created = std::make_unique<peer>(name, received.origin, data_path);
  if (!created->is_connected() && (errno == EMFILE || errno == ENFILE)) {
    created.reset();
    m_peers.give_up_unreachable();
    m_peers.forget_gone();
    created = std::make_unique<peer>(name, received.origin, data_path);
  }
  if (!created->is_connected()) return std::string("its sockets cannot be reached: ") + strerror(errno);
  if (!has_sockets_of_its_own(*created)) return "the sockets at its paths are not its own";

  take_place(*created);
  const pid_t pid = created->pid;
  m_peers.add(std::move(created));
  m_report.event("%s (pid %d) registered with %s", name.c_str(), pid, data_path.c_str());
  m_report.events.note(EVENT_REGISTERED, m_peers.at_mgmt(received.origin.path)->label);
  reply << m_data_path;
  return {};
}

// Whether the sockets are where those of this component must be, and free.
std::string registrar::check_sockets(const sender& from, const std::string& name,
                                     const std::string& data_path) const {
  const std::string& path = from.path;
  if (!is_name(path) || !m_strangers.is_on_bus(path)) return "its management socket is not on the bus";
  if (!ends_with(path, "/" + name)) return "the name is not that of its management socket";
  if (data_path != path + "-d") return "the data socket is not the one beside its management socket";
  if (path == m_data_path || data_path == m_data_path) return "these are the core's own sockets";
  const peer* const before = m_peers.at_mgmt(path);
  if (before != nullptr && before->uid != from.uid && before->is_alive())
    return "a process of another user has the name, and lives";
  return {};
}

// The files are those of the user who asks, and not under another path another component's.
bool registrar::has_sockets_of_its_own(const peer& added) const {
  bool is_alone = true;
  m_peers.for_each([&](const peer& each) {
    if (each.mgmt_path != added.mgmt_path && added.shares_sockets_with(each)) is_alone = false;
  });
  return is_alone && added.has_own_sockets();
}

// Whoever had the sockets before is replaced: the component itself as a rule, started again. What a component
// binds it has taken away from those that had it and still live.
void registrar::take_place(const peer& added) {
  const auto warn = [this, &added](const peer* before, const char* consequence) {
    if (before == nullptr || before->pid == added.pid || !before->is_alive()) return;
    m_report.problem("%s (pid %d) has removed a socket of %s (pid %d), which lives: %s", added.name.c_str(),
                     added.pid, before->name.c_str(), before->pid, consequence);
  };
  constexpr char clash[] = "no new sender reaches that, their names may not differ by -d alone";
  warn(m_peers.at_mgmt(added.mgmt_path), "that gets nothing any more, end it with SIGKILL");
  warn(m_peers.at_mgmt(added.data_path), clash);
  warn(m_peers.at_data(added.mgmt_path), clash);
  if (peer* const before = m_peers.at_mgmt(added.mgmt_path)) m_peers.give_up(*before, "it registered again");
  m_peers.forget_gone();
}

std::string registrar::unregister_peer(const request& received, KXmessage& /*reply*/) {
  std::string name;
  if (!payload(received.message).take(name)) return unparsable;
  if (name != received.from->name) return "the name is not the sender's";
  m_peers.give_up(*received.from, "it unregistered");
  return {};
}

// --- services ---

std::string registrar::offer(const request& received, KXmessage& reply) {
  std::string component;
  std::string name;
  service_description about;
  payload values(received.message);
  if (!values.take(component) || !values.take(name) || !values.take(about.xml_comment) ||
      !values.take(about.interface_class) || !values.take(about.kind)) {
    return unparsable;
  }
  const bool is_signal = facts_of(received.cmd()).of_signal;
  if (about.kind > KXconnection::SGNL || is_signal != (about.kind == KXconnection::SGNL)) return unparsable;
  std::string reason = check_offer(*received.from, name);
  if (!reason.empty()) return reason;

  const std::uint32_t siid = m_peers.services().offer(*received.from, name, is_signal);
  m_peers.services().find_offered(name)->description = std::move(about);
  m_report.event("%s offers %s '%s' (siid %u)", received.from->name.c_str(), kind_of(is_signal), name.c_str(),
                 siid);
  m_report.events.note(EVENT_OFFERED, received.from->label, name);
  reply << static_cast<int>(siid);
  return {};
}

std::string registrar::check_offer(peer& by, const std::string& name) {
  if (!is_name(name)) return unsuitable_name;
  if (introspection::reserves(name)) return quoted(name) + " is a name of the core's";
  if (by.grants == peer::max_grants) return limit_reached(name);
  const auto offered = m_peers.services().find_offered(name);
  if (offered == nullptr) return {};
  peer& owner = *offered->owner;
  if (&owner == &by || !m_peers.is_unreachable(owner)) return quoted(name) + " is offered by " + owner.name;
  m_peers.give_up(owner, "it does not exist any more");
  m_peers.release(owner);
  return {};
}

std::string registrar::withdraw(const request& received, KXmessage& /*reply*/) {
  std::uint32_t siid = 0;
  if (!payload(received.message).take(siid)) return unparsable;
  const std::string name = m_peers.services().name_of(siid);
  if (!m_peers.services().withdraw(*received.from, siid, facts_of(received.cmd()).of_signal))
    return foreign_siid;
  m_report.events.note(EVENT_WITHDRAWN, received.from->label, name, "it was withdrawn");
  m_report.event("%s withdrew the service with siid %u", received.from->name.c_str(), siid);
  m_peers.fail_all_to(siid, "the service is withdrawn");
  return {};
}

std::string registrar::subscribe(const request& received, KXmessage& reply) {
  std::string name;
  if (!payload(received.message).take(name)) return unparsable;
  if (!is_name(name)) return unsuitable_name;
  directory& services = m_peers.services();
  const auto wanted = services.find_offered(name);
  if (wanted == nullptr) return "nobody offers " + quoted(name);
  const bool is_signal = facts_of(received.cmd()).of_signal;
  if (wanted->is_signal != is_signal) return quoted(name) + " is a " + kind_of(wanted->is_signal);
  if (received.from->grants == peer::max_grants) return limit_reached(name);
  if (!services.has_message_ids()) return "all message ids are in use, none are left for " + quoted(name);

  const directory::grant granted = services.subscribe(*received.from, wanted);
  m_report.event("%s subscribed to %s '%s' (siid %u, message ids %u-%u)", received.from->name.c_str(),
                 kind_of(is_signal), name.c_str(), granted.siid, granted.mid_first, granted.mid_end - 1);
  m_report.events.note(EVENT_SUBSCRIBED, received.from->label, name);
  for (const std::uint32_t number : {granted.siid, granted.service_siid, granted.mid_first, granted.mid_end})
    reply << static_cast<int>(number);
  return {};
}

std::string registrar::unsubscribe(const request& received, KXmessage& /*reply*/) {
  std::uint32_t siid = 0;
  if (!payload(received.message).take(siid)) return unparsable;
  const std::string name = m_peers.services().name_of(siid);
  if (!m_peers.services().unsubscribe(*received.from, siid, facts_of(received.cmd()).of_signal))
    return foreign_siid;
  m_report.events.note(EVENT_UNSUBSCRIBED, received.from->label, name, "it ended its subscription");
  m_report.event("%s ended its subscription with siid %u", received.from->name.c_str(), siid);
  if (!facts_of(received.cmd()).of_signal) m_peers.fail_all_to(siid, "the subscription has ended");
  return {};
}
