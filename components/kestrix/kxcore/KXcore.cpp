#include "KXcore.h"

#include <arpa/inet.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "KXconnection.h"
#include "KXlog.h"
#include "payload.h"

namespace {

// A turn ends after this many batches, so that a flood on one socket does not keep the loop from the other.
constexpr int batches_per_turn = 16;
constexpr unsigned int kill_message_id = 0x33333333;
constexpr char unparsable[] = "the payload does not parse";

bool is_signal_cmd(mgmt_cmd_e cmd) {
  return cmd == CMD_REG_SIGNAL || cmd == CMD_UNREG_SIGNAL || cmd == CMD_SUB_SIGNAL || cmd == CMD_UNSUB_SIGNAL;
}

KXmessage make_management(msg_type_e type, std::uint8_t cmd, std::uint32_t wire_msg_id) {
  KXmessage message;
  message.m_header->dst_siid = htonl(management_siid);
  message.m_header->src_siid = htonl(management_siid);
  message.m_header->msg_type = type;
  message.m_header->cmd = cmd;
  message.m_header->msg_id = wire_msg_id;
  return message;
}

}  // namespace

KXcore::KXcore(bool verbose)
    : KXcomponent("kxcore"), m_verbose(verbose), m_watched(epoll_create1(EPOLL_CLOEXEC)) {
  inbox::ask_for_sender_pid(m_mgmt_fd);
  add_socket_descriptor(m_watched.get(), this, static_serve_watched);
}

void KXcore::say(const char* format, ...) const {
  if (!m_verbose) return;
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::putchar('\n');
}

// One thing that happened to a component: for the user who watches, and for the log.
#define REPORT_EVENT(...)     \
  do {                        \
    say(__VA_ARGS__);         \
    KX_LOG_INFO(__VA_ARGS__); \
  } while (false)

#define REPORT_PROBLEM(...)      \
  do {                           \
    say(__VA_ARGS__);            \
    KX_LOG_WARNING(__VA_ARGS__); \
  } while (false)

// --- management ---

void KXcore::get_mgmt_message(int /*fd*/) {
  unsigned int received = inbox::batch_size;
  for (int batch = 0; batch < batches_per_turn && received == inbox::batch_size; ++batch) {
    received = m_mgmt_inbox.receive(m_mgmt_fd);
    for (unsigned int i = 0; i < received; ++i) {
      const std::string& sender = m_mgmt_inbox.sender(i);
      const auto from = m_by_mgmt_path.find(sender);
      if (m_mgmt_inbox.truncated(i) || m_mgmt_inbox.length(i) < static_cast<int>(sizeof(msg_header_t))) {
        REPORT_PROBLEM("dropped a malformed management message from [%s]", sender.c_str());
        continue;
      }
      handle_management({sender, m_mgmt_inbox.sender_pid(i),
                         from == m_by_mgmt_path.end() ? nullptr : from->second, m_mgmt_inbox.message(i)});
      forget_gone_peers();
    }
  }
}

std::string KXcore::request::name() const { return from != nullptr ? from->name : "[" + sender + "]"; }

void KXcore::handle_management(const request& received) {
  const msg_header_t& header = *received.message.m_header;
  KX_LOG_DEBUG3("RX : [%s] : %s : %s (id=%d)", received.sender.c_str(), msg_type_name(header.msg_type),
                mgmt_cmd_name(header.cmd), ntohl(header.msg_id));
  if (received.cmd() == CMD_KILL_COMPONENT && received.sender == m_mgmt_socket_name) return begin_stop();
  if (header.msg_type != MSG_REQ && header.msg_type != MSG_SIG) {
    REPORT_PROBLEM("dropped a management message of type %s from %s", msg_type_name(header.msg_type),
                   received.name().c_str());
    return;
  }
  const std::string name = received.name();  // the sender may be gone afterwards
  KXmessage reply = make_management(MSG_RSP, header.cmd, header.msg_id);
  const std::string refusal = answer(received, reply);
  if (!refusal.empty()) {
    REPORT_PROBLEM("refused %s of %s: %s", mgmt_cmd_name(header.cmd), name.c_str(), refusal.c_str());
    reply.m_header->msg_type = MSG_ERR;
    reply << refusal;
  }
  if (header.msg_type == MSG_REQ) respond(received, reply);
}

// Carries a request out and writes what is granted into the reply; why it is refused, or an empty text.
std::string KXcore::answer(const request& received, KXmessage& reply) {
  const mgmt_cmd_e cmd = received.cmd();
  const bool awaits_reply = cmd == CMD_REG_COMPONENT || cmd == CMD_REG_FUNCTION || cmd == CMD_REG_SIGNAL ||
                            cmd == CMD_SUB_FUNCTION || cmd == CMD_SUB_SIGNAL;
  if (awaits_reply && received.message.m_header->msg_type != MSG_REQ) return "it is not a request";
  if (cmd == CMD_REG_COMPONENT) return register_peer(received, reply);
  if (received.from == nullptr) return "the sender is not registered";
  switch (cmd) {
    case CMD_UNREG_COMPONENT:
      return unregister_peer(received);
    case CMD_REG_FUNCTION:
    case CMD_REG_SIGNAL:
      return offer_service(received, reply);
    case CMD_UNREG_FUNCTION:
    case CMD_UNREG_SIGNAL:
      return withdraw_service(received);
    case CMD_SUB_FUNCTION:
    case CMD_SUB_SIGNAL:
      return subscribe(received, reply);
    case CMD_UNSUB_FUNCTION:
    case CMD_UNSUB_SIGNAL:
      return unsubscribe(received);
    default:
      return "the core does not serve this command";
  }
}

// A sender that is not registered gets its reply over a socket of its own: should it never read, the
// datagrams fill no send buffer that anybody else depends on.
void KXcore::respond(const request& received, const KXmessage& reply) {
  const auto registered = m_by_mgmt_path.find(received.sender);
  if (registered != m_by_mgmt_path.end()) {
    send(*registered->second, registered->second->mgmt, reply);
  } else if (!received.sender.empty()) {
    outlet(received.sender).send(reply.m_header, static_cast<std::size_t>(reply.datagram_size()));
  }
}

std::string KXcore::register_peer(const request& received, KXmessage& reply) {
  std::string name;
  std::string data_path;
  payload values(received.message);
  if (!values.take(name) || !values.take(data_path) || name.empty() || data_path.empty()) return unparsable;
  if (m_stopping) return "the core is stopping";
  if (received.sender.empty()) return "its management socket has no path";
  if (received.sender == m_mgmt_socket_name || data_path == m_data_socket_name)
    return "the sockets are the core's";

  // The name and the paths that the component takes over, from itself as a rule: it was started again.
  const auto by_name = m_peers.find(name);
  const auto by_data_path = m_by_data_path.find(data_path);
  peer* const same_name = by_name == m_peers.end() ? nullptr : by_name->second.get();
  peer* const same_data_path = by_data_path == m_by_data_path.end() ? nullptr : by_data_path->second;
  for (peer* const earlier : {received.from, same_name, same_data_path}) {
    if (earlier != nullptr) give_up(*earlier, "it registered again");
  }
  forget_gone_peers();

  auto created = std::make_unique<peer>(name, received.sender, data_path, received.pid);
  if (!created->mgmt.connected() || !created->data.connected()) {
    return std::string("its sockets cannot be reached: ") + strerror(errno);
  }
  peer& registered = *created;
  m_by_mgmt_path[registered.mgmt_path] = &registered;
  m_by_data_path[registered.data_path] = &registered;
  m_peers[name] = std::move(created);
  if (registered.process.get() >= 0) watch(registered, registered.process.get(), EPOLLIN);
  REPORT_EVENT("%s (pid %d) registered with %s", name.c_str(), registered.pid, data_path.c_str());
  reply << m_data_socket_name;
  return {};
}

std::string KXcore::unregister_peer(const request& received) {
  std::string name;
  if (!payload(received.message).take(name)) return unparsable;
  if (name != received.from->name) return "the name is not the sender's";
  give_up(*received.from, "it unregistered");
  return {};
}

std::string KXcore::offer_service(const request& received, KXmessage& reply) {
  std::string component;
  std::string name;
  std::string xml_comment;
  std::string interface_class;
  unsigned int type = 0;
  payload values(received.message);
  if (!values.take(component) || !values.take(name) || !values.take(xml_comment) ||
      !values.take(interface_class) || !values.take(type) || name.empty()) {
    return unparsable;
  }
  const bool is_signal = is_signal_cmd(received.cmd());
  if (type > KXconnection::SGNL || is_signal != (type == KXconnection::SGNL)) return unparsable;

  if (const auto offered = m_directory.find_offered(name); offered != nullptr) {
    if (offered->owner == received.from || !offered->owner->has_ended())
      return "'" + name + "' is offered by " + offered->owner->name;
    give_up(*offered->owner, "its process ended");
    forget_gone_peers();
  }
  const std::uint32_t siid = m_directory.offer(*received.from, name, is_signal);
  REPORT_EVENT("%s offers %s '%s' (siid %u)", received.from->name.c_str(), is_signal ? "signal" : "function",
               name.c_str(), siid);
  reply << static_cast<int>(siid);
  return {};
}

std::string KXcore::withdraw_service(const request& received) {
  std::uint32_t siid = 0;
  if (!payload(received.message).take(siid)) return unparsable;
  if (!m_directory.withdraw(*received.from, siid, is_signal_cmd(received.cmd())))
    return "the siid is not the sender's";
  REPORT_EVENT("%s withdrew the service with siid %u", received.from->name.c_str(), siid);
  return {};
}

std::string KXcore::subscribe(const request& received, KXmessage& reply) {
  std::string name;
  if (!payload(received.message).take(name)) return unparsable;
  const auto wanted = m_directory.find_offered(name);
  if (wanted == nullptr) return "nobody offers '" + name + "'";
  const bool is_signal = is_signal_cmd(received.cmd());
  if (wanted->is_signal != is_signal) return "'" + name + "' is a " + (is_signal ? "function" : "signal");
  if (!m_directory.has_message_ids()) return "all message ids are in use";

  const directory::subscription granted = m_directory.subscribe(*received.from, wanted);
  REPORT_EVENT("%s subscribed to %s '%s' (siid %u, message ids %u-%u)", received.from->name.c_str(),
               is_signal ? "signal" : "function", name.c_str(), granted.siid, granted.mid_first,
               granted.mid_end - 1);
  reply << static_cast<int>(granted.siid);
  reply << static_cast<int>(granted.service_siid);
  reply << static_cast<int>(granted.mid_first);
  reply << static_cast<int>(granted.mid_end);
  return {};
}

std::string KXcore::unsubscribe(const request& received) {
  std::uint32_t siid = 0;
  if (!payload(received.message).take(siid)) return unparsable;
  if (!m_directory.unsubscribe(*received.from, siid, is_signal_cmd(received.cmd()))) {
    return "the siid is not the sender's";
  }
  REPORT_EVENT("%s ended its subscription with siid %u", received.from->name.c_str(), siid);
  return {};
}

// --- data ---

void KXcore::get_data_message(int /*fd*/) {
  unsigned int received = inbox::batch_size;
  for (int batch = 0; batch < batches_per_turn && received == inbox::batch_size; ++batch) {
    received = m_data_inbox.receive(m_data_fd);
    for (unsigned int i = 0; i < received; ++i) {
      const std::string& sender = m_data_inbox.sender(i);
      const auto from = m_by_data_path.find(sender);
      if (m_data_inbox.truncated(i) || m_data_inbox.length(i) < static_cast<int>(sizeof(msg_header_t))) {
        REPORT_PROBLEM("dropped a malformed data message from [%s]", sender.c_str());
      } else if (from == m_by_data_path.end()) {
        REPORT_PROBLEM("dropped a data message from [%s], which is not registered", sender.c_str());
      } else {
        route(*from->second, m_data_inbox.message(i));
      }
    }
    forget_gone_peers();
  }
}

void KXcore::route(peer& from, KXmessage& message) {
  const std::uint32_t src_siid = ntohl(message.m_header->src_siid);
  const std::uint32_t dst_siid = ntohl(message.m_header->dst_siid);
  KX_LOG_DEBUG3("RX : [%d]->[%d] : %s : %d (id=%d)", src_siid, dst_siid,
                msg_type_name(message.m_header->msg_type), message.m_header->cmd,
                ntohl(message.m_header->msg_id));
  if (!m_directory.owns(from, src_siid)) {
    REPORT_PROBLEM("dropped a message of %s: the source siid %u is not its own", from.name.c_str(), src_siid);
    return;
  }
  const endpoint* to = m_directory.find(dst_siid);
  if (to == nullptr) return report_undelivered(message, "no service has this siid");
  const service& serving = *to->of;
  const bool to_subscribers =
      to->role == endpoint::SUBSCRIBERS || (dst_siid == src_siid && message.m_header->msg_type == MSG_SIG);
  if (to_subscribers && serving.is_signal) {
    if (src_siid != serving.siid)
      return report_undelivered(message, "only the signal's own stub reaches its subscribers");
    return fan_out(serving, message);
  }
  peer* const receiver = to->holder();
  if (receiver == nullptr) return report_undelivered(message, "the service is not offered any more");
  forward(*receiver, message);
}

void KXcore::fan_out(const service& signal, KXmessage& message) {
  message.m_header->dst_siid = htonl(signal.subscribers_siid);
  for (const auto& subscriber : signal.subscribers)
    forward(*subscriber.first, message);
}

void KXcore::forward(peer& to, const KXmessage& message) {
  const outlet::result_e result = send(to, to.data, message);
  if (result == outlet::FULL)
    report_undelivered(message, "the component does not read and its queue is full");
  if (result == outlet::GONE) report_undelivered(message, "the component is gone");
}

// Answers a request that cannot be delivered; any other message is lost.
void KXcore::report_undelivered(const KXmessage& message, const char* reason) {
  const msg_header_t& lost = *message.m_header;
  if (lost.msg_type != MSG_REQ) {
    KX_LOG_INFO("a message from siid %u to siid %u is lost: %s", ntohl(lost.src_siid), ntohl(lost.dst_siid),
                reason);
    return;
  }
  const endpoint* requester = m_directory.find(ntohl(lost.src_siid));
  peer* const receiver = requester == nullptr ? nullptr : requester->holder();
  if (receiver == nullptr) return;
  KXmessage failure = make_management(MSG_ERR, lost.cmd, lost.msg_id);
  failure.m_header->dst_siid = lost.src_siid;
  failure.m_header->src_siid = lost.dst_siid;
  failure << reason;
  forward(*receiver, failure);
}

// --- the way to a component ---

outlet::result_e KXcore::send(peer& to, outlet& way, const KXmessage& message) {
  if (to.is_gone) return outlet::GONE;
  const bool had_queue = way.has_queue();
  const outlet::result_e result =
      way.send(message.m_header, static_cast<std::size_t>(message.datagram_size()));
  if (result == outlet::QUEUED && !had_queue) watch(to, way.fd(), EPOLLOUT);
  if (result == outlet::GONE) give_up(to, "its socket is gone");
  if (result == outlet::FULL && way.lost() == 1) {
    REPORT_PROBLEM("%s does not read: its queue of %zu messages is full, what comes now is lost",
                   to.name.c_str(), outlet::max_queued);
  }
  return result;
}

void KXcore::watch(peer& watched, int fd, unsigned int events) {
  epoll_event entry = {};
  entry.events = events;
  entry.data.ptr = &watched;
  if (epoll_ctl(m_watched.get(), EPOLL_CTL_ADD, fd, &entry) != 0) {
    REPORT_PROBLEM("cannot watch a descriptor of %s: %s", watched.name.c_str(), strerror(errno));
  }
}

int KXcore::static_serve_watched(void* context, int /*fd*/) {
  static_cast<KXcore*>(context)->serve_watched();
  return 0;
}

// Processes are watched for EPOLLIN, sockets for EPOLLOUT; peers live until forget_gone_peers, so no event is
// stale.
void KXcore::serve_watched() {
  epoll_event events[64];
  const int count = epoll_wait(m_watched.get(), events, 64, 0);
  for (int i = 0; i < count; ++i) {
    peer& watched = *static_cast<peer*>(events[i].data.ptr);
    if ((events[i].events & EPOLLIN) != 0) {
      give_up(watched, "its process ended");
    } else {
      flush(watched, watched.mgmt);
      flush(watched, watched.data);
    }
  }
  forget_gone_peers();
}

void KXcore::flush(peer& to, outlet& way) {
  if (to.is_gone || !way.has_queue()) return;
  const outlet::result_e result = way.flush();
  if (result == outlet::GONE) return give_up(to, "its socket is gone");
  if (result != outlet::SENT) return;
  epoll_ctl(m_watched.get(), EPOLL_CTL_DEL, way.fd(), nullptr);
  if (const unsigned long lost = way.take_lost(); lost > 0) {
    REPORT_PROBLEM("%s reads again: %lu messages to it were lost", to.name.c_str(), lost);
  }
}

// Marks a component as gone. It is forgotten when nothing refers to it any more.
void KXcore::give_up(peer& gone, const char* reason) {
  if (gone.is_gone) return;
  gone.is_gone = true;
  m_gone.push_back(&gone);
  REPORT_EVENT("%s (pid %d) is gone: %s", gone.name.c_str(), gone.pid, reason);
}

void KXcore::forget_gone_peers() {
  while (!m_gone.empty()) {
    peer* const gone = m_gone.back();
    m_gone.pop_back();
    m_directory.forget(*gone);
    m_by_mgmt_path.erase(gone->mgmt_path);
    m_by_data_path.erase(gone->data_path);
    std::deque<datagram> undelivered = gone->data.take_queue();
    m_peers.erase(m_peers.find(gone->name));
    answer_lost_requests(std::move(undelivered));
  }
  if (m_stopping && m_peers.empty()) m_running = false;
}

void KXcore::answer_lost_requests(std::deque<datagram> queue) {
  for (const datagram& bytes : queue) {
    KXmessage message;
    std::memcpy(message.m_header, bytes.data(), bytes.size());
    message.incr_size(static_cast<int>(bytes.size() - sizeof(msg_header_t)));
    report_undelivered(message, "the component is gone");
  }
}

// --- stop ---

// Tells every component to end, and ends when they have unregistered, which without a core would cost each of
// them seconds of vain attempts. Those that do not are not waited for; a second signal ends the core at once.
void KXcore::begin_stop() {
  if (m_stopping || m_peers.empty()) {
    m_running = false;
    return;
  }
  m_stopping = true;
  REPORT_EVENT("stopping: %zu components are told to end", m_peers.size());
  const KXmessage kill = make_management(MSG_SIG, CMD_KILL_COMPONENT, htonl(kill_message_id));
  for (const auto& each : m_peers)
    send(*each.second, each.second->mgmt, kill);
  add_msec_timer(stop_limit_ms, this, static_end_stop, 0);
}

int KXcore::static_end_stop(void* context, int /*cookie*/) {
  static_cast<KXcore*>(context)->m_running = false;
  return -1;
}
