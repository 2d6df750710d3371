#include "KXcore.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "KXconnection.h"
#include "KXlog.h"
#include "datagram.h"
#include "management.h"
#include "payload.h"
#include "socket_address.h"

namespace {

// A turn ends after this many batches, so that a flood of data does not keep the loop from the rest.
constexpr int batches_per_turn = 16;
constexpr char unparsable[] = "the payload does not parse";
constexpr char unsuitable_name[] = "the name is empty, longer than 255 bytes or has control characters";

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

// Names go into lines of the log.
bool is_name(const std::string& text) {
  return !text.empty() && text.size() <= 255 && std::none_of(text.begin(), text.end(), is_control);
}

// The path of a sender that is not registered, for a line.
std::string printable(std::string path) {
  std::replace_if(path.begin(), path.end(), is_control, '?');
  return "[" + path + "]";
}

std::string limit_reached() {
  return "it holds " + std::to_string(peer::max_grants) + " services and subscriptions, which is the limit";
}

// Of what may happen for every datagram of a flood the first few are reported, then each doubling.
bool is_reported(unsigned long count) { return count <= 8 || (count & (count - 1)) == 0; }

bool is_readable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

int open_signals() {
  sigset_t termination;
  sigemptyset(&termination);
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM})
    sigaddset(&termination, signal);
  return signalfd(-1, &termination, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

KXcore::KXcore(bool verbose)
    : KXcomponent("kxcore", nullptr),
      m_verbose(verbose),
      m_console(verbose ? STDOUT_FILENO : STDERR_FILENO, verbose ? "" : "kxcore: "),
      m_signals(open_signals()),
      m_watched(epoll_create1(EPOLL_CLOEXEC)),
      m_probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      m_mgmt_inbox(true),
      m_data_inbox(false) {
  if (m_signals.get() < 0 || m_watched.get() < 0 || m_probe.get() < 0 ||
      !watch(nullptr, m_signals.get(), EPOLLIN)) {
    const int error = errno;
    stop();
    throw std::system_error(error, std::generic_category(), "cannot open its descriptors");
  }
  inbox::ask_for_sender_pid(m_mgmt_fd);
  add_socket_descriptor(m_watched.get(), this, static_serve_watched);
  if (m_verbose) m_console.line("kxcore is ready");
}

// One thing that happened to a component: for the person who watches, and for the log.
#define REPORT_EVENT(...)                       \
  do {                                          \
    if (m_verbose) m_console.line(__VA_ARGS__); \
    KX_LOG_INFO(__VA_ARGS__);                   \
  } while (false)

#define REPORT_PROBLEM(...)                                                             \
  do {                                                                                  \
    if (m_verbose || kxlog::enabled(kxlog::LEVEL_WARNING)) m_console.line(__VA_ARGS__); \
    KX_LOG_WARNING(__VA_ARGS__);                                                        \
  } while (false)

unsigned long& KXcore::dropped_of(peer* from) {
  return from != nullptr ? from->dropped : m_strangers_dropped;
}

// Another process may once have had the path: what that one withdraws is not its own any more.
peer* KXcore::peer_at(const std::string& mgmt_path, pid_t pid) const {
  const auto entry = m_by_mgmt_path.find(mgmt_path);
  if (entry == m_by_mgmt_path.end()) return nullptr;
  peer* const registered = entry->second;
  return registered->pid == 0 || pid == 0 || registered->pid == pid ? registered : nullptr;
}

void KXcore::drop(peer* from, const std::string& sender, const char* reason) {
  unsigned long& count = dropped_of(from);
  if (!is_reported(++count)) return;
  REPORT_PROBLEM("dropped a message of %s (%lu so far): %s",
                 from != nullptr ? from->name.c_str() : printable(sender).c_str(), count, reason);
}

// --- management ---

void KXcore::get_mgmt_message(int /*fd*/) {
  if (!holds_something()) {
    m_held = m_mgmt_inbox.receive(m_mgmt_fd);
    m_data_ahead = socket_queue + 1;
  }
  get_data_message(m_data_fd);
}

void KXcore::serve_held() {
  for (unsigned int i = 0; i < m_held; ++i) {
    const std::string& sender = m_mgmt_inbox.sender(i);
    const pid_t pid = m_mgmt_inbox.sender_pid(i);
    peer* const from = peer_at(sender, pid);
    if (m_mgmt_inbox.is_malformed(i)) {
      drop(from, sender, "it is malformed");
    } else {
      handle_management({sender, pid, from, m_mgmt_inbox.message(i)});
      forget_gone_peers();
    }
  }
  m_held = 0;
  if (!std::exchange(m_processes_ended, false)) return;
  for (const auto& entry : m_peers)
    if (entry.second->has_ended) process_ended(*entry.second);
  forget_gone_peers();
}

std::string KXcore::request::name() const { return from != nullptr ? from->name : printable(sender); }

void KXcore::handle_management(const request& received) {
  const msg_header_t& header = *received.message.m_header;
  KX_LOG_DEBUG3("RX : %s : %s : %s (id=%d)", printable(received.sender).c_str(),
                msg_type_name(header.msg_type), mgmt_cmd_name(header.cmd), ntohl(header.msg_id));
  if (received.cmd() == CMD_KILL_COMPONENT && received.sender == m_mgmt_socket_name) return begin_stop();
  if (header.msg_type != MSG_REQ && header.msg_type != MSG_SIG) {
    return drop(received.from, received.sender, "it is neither a request nor a notice");
  }
  const std::string name = received.name();  // the sender may be gone afterwards
  KXmessage reply = make_management(MSG_RSP, header.cmd, ntohl(header.msg_id));
  const std::string refusal = answer(received, reply);
  if (!refusal.empty()) {
    if (is_reported(++dropped_of(peer_at(received.sender, received.pid)))) {
      REPORT_PROBLEM("refused %s of %s: %s", mgmt_cmd_name(header.cmd), name.c_str(), refusal.c_str());
    }
    reply.m_header->msg_type = MSG_ERR;
    reply << refusal;
  }
  if (header.msg_type == MSG_REQ) respond(received, reply);
}

// Carries a request out and writes what is granted into the reply; why it is refused, or an empty text.
std::string KXcore::answer(const request& received, KXmessage& reply) {
  const mgmt_cmd_e cmd = received.cmd();
  if (awaits_reply(cmd) && received.message.m_header->msg_type != MSG_REQ) return "it is not a request";
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
// datagrams fill no send buffer that anybody else depends on, as long as there is a descriptor for one.
void KXcore::respond(const request& received, const KXmessage& reply) {
  const auto length = static_cast<std::size_t>(reply.datagram_size());
  peer* const registered = peer_at(received.sender, received.pid);
  if (registered != nullptr && !registered->is_gone) {
    send(*registered, registered->mgmt, reply, nullptr);
  } else if (outlet way(received.sender); way.connected()) {
    way.send(reply.m_header, length, 0);
  } else if (errno == EMFILE || errno == ENFILE) {
    const sockaddr_un address = socket_address(received.sender);
    sendto(m_mgmt_fd, reply.m_header, length, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
           sizeof address);
  }
}

std::string KXcore::register_peer(const request& received, KXmessage& reply) {
  std::string name;
  std::string data_path;
  payload values(received.message);
  if (!values.take(name) || !values.take(data_path)) return unparsable;
  if (!is_name(name)) return unsuitable_name;
  if (m_stopping) return "the core is stopping";
  if (!is_name(received.sender)) return "its management socket has no path, or one with control characters";
  if (data_path != received.sender + "-d")
    return "the data socket is not the one beside its management socket";

  auto created = std::make_unique<peer>(name, received.sender, data_path, received.pid);
  if (!created->is_connected() && (errno == EMFILE || errno == ENFILE)) {
    created.reset();
    give_up_unreachable_peers();
    created = std::make_unique<peer>(name, received.sender, data_path, received.pid);
  }
  if (!created->is_connected()) return std::string("its sockets cannot be reached: ") + strerror(errno);
  // Whoever had the name or the sockets before is replaced: the component itself as a rule, started again.
  const auto same_name = m_peers.find(name);
  if (same_name != m_peers.end()) give_up(*same_name->second, "it registered again");
  if (peer* const same_path = peer_at(received.sender, 0)) give_up(*same_path, "it registered again");
  forget_gone_peers();

  peer& registered = *created;
  m_by_mgmt_path[registered.mgmt_path] = &registered;
  m_by_data_path[registered.data_path] = &registered;
  m_peers[name] = std::move(created);
  if (registered.process.get() >= 0) watch_for(registered, registered.process.get(), EPOLLIN);
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
      !values.take(interface_class) || !values.take(type)) {
    return unparsable;
  }
  const bool is_signal = facts_of(received.cmd()).of_signal;
  if (type > KXconnection::SGNL || is_signal != (type == KXconnection::SGNL)) return unparsable;
  if (!is_name(name)) return unsuitable_name;
  if (received.from->grants == peer::max_grants) return limit_reached();

  if (const auto offered = m_directory.find_offered(name); offered != nullptr) {
    peer& owner = *offered->owner;
    if (&owner == received.from || !owner.is_unreachable(m_probe.get()))
      return "'" + name + "' is offered by " + owner.name;
    give_up(owner, "it does not exist any more");
    m_directory.forget(owner);
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
  if (!m_directory.withdraw(*received.from, siid, facts_of(received.cmd()).of_signal))
    return "the siid is not the sender's";
  REPORT_EVENT("%s withdrew the service with siid %u", received.from->name.c_str(), siid);
  return {};
}

std::string KXcore::subscribe(const request& received, KXmessage& reply) {
  std::string name;
  if (!payload(received.message).take(name)) return unparsable;
  if (!is_name(name)) return unsuitable_name;
  const auto wanted = m_directory.find_offered(name);
  if (wanted == nullptr) return "nobody offers '" + name + "'";
  const bool is_signal = facts_of(received.cmd()).of_signal;
  if (wanted->is_signal != is_signal) return "'" + name + "' is a " + (is_signal ? "function" : "signal");
  if (received.from->grants == peer::max_grants) return limit_reached();
  if (!m_directory.has_message_ids()) return "all message ids are in use";

  const directory::grant granted = m_directory.subscribe(*received.from, wanted);
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
  if (!m_directory.unsubscribe(*received.from, siid, facts_of(received.cmd()).of_signal)) {
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
      const auto entry = m_by_data_path.find(sender);
      peer* const from = entry == m_by_data_path.end() ? nullptr : entry->second;
      if (m_data_inbox.is_malformed(i)) {
        drop(from, sender, "it is malformed");
      } else if (from == nullptr) {
        drop(from, sender, "the sender is not registered");
      } else {
        route(*from, m_data_inbox.message(i));
      }
    }
    forget_gone_peers();
    m_data_ahead -= std::min(m_data_ahead, received);
  }
  // A socket that is empty after a full batch would not bring the loop here again.
  if (holds_something() && (received < inbox::batch_size || m_data_ahead == 0 || !is_readable(m_data_fd)))
    serve_held();
}

void KXcore::route(peer& from, KXmessage& message) {
  const std::uint32_t src_siid = ntohl(message.m_header->src_siid);
  const std::uint32_t dst_siid = ntohl(message.m_header->dst_siid);
  KX_LOG_DEBUG3("RX : [%d]->[%d] : %s : %d (id=%d)", src_siid, dst_siid,
                msg_type_name(message.m_header->msg_type), message.m_header->cmd,
                ntohl(message.m_header->msg_id));
  if (!m_directory.owns(from, src_siid)) return drop(&from, from.name, "its source siid is not the sender's");

  const endpoint* to = m_directory.find(dst_siid);
  if (to == nullptr) return answer_undelivered(message, &from, "no service has this siid");
  const service& serving = *to->of;
  const bool to_subscribers =
      to->role == endpoint::SUBSCRIBERS || (dst_siid == src_siid && message.m_header->msg_type == MSG_SIG);
  if (to_subscribers && serving.is_signal) {
    if (src_siid == serving.siid) return fan_out(serving, message, &from);
    return answer_undelivered(message, &from, "only a signal's own stub reaches its subscribers");
  }
  if (to->role == endpoint::PROXY && src_siid != serving.siid) {
    return answer_undelivered(message, &from, "only its service reaches a proxy");
  }
  peer* const receiver = to->holder();
  if (receiver == nullptr) return answer_undelivered(message, &from, "the service is not offered any more");
  forward(*receiver, message, &from);
}

void KXcore::fan_out(const service& signal, KXmessage& message, peer* requester) {
  message.m_header->dst_siid = htonl(signal.subscribers_siid);
  for (const auto& subscriber : signal.subscribers)
    forward(*subscriber.first, message, requester);
}

// Sends a message on its way to a component. What is lost is counted there (send).
void KXcore::forward(peer& to, const KXmessage& message, peer* from) {
  const outlet::result_e result = send(to, to.data, message, from);
  if (message.m_header->msg_type != MSG_REQ) return;
  if (result == outlet::FULL)
    answer_undelivered(message, from, "the component does not read, its queue is full");
  if (result == outlet::GONE) answer_undelivered(message, from, "the component is gone");
}

// A request that cannot be delivered is answered, anything else dropped.
void KXcore::answer_undelivered(const KXmessage& message, peer* requester, const char* reason) {
  if (requester == nullptr) return;
  const msg_header_t& lost = *message.m_header;
  if (lost.msg_type != MSG_REQ) return drop(requester, requester->name, reason);
  KXmessage failure = make_management(MSG_ERR, lost.cmd, ntohl(lost.msg_id));
  failure.m_header->dst_siid = lost.src_siid;
  failure.m_header->src_siid = lost.dst_siid;
  failure << reason;
  forward(*requester, failure, nullptr);
}

// --- the way to a component ---

outlet::result_e KXcore::send(peer& to, outlet& way, const KXmessage& message, const peer* from) {
  if (to.is_gone) return outlet::GONE;
  const bool had_queue = way.has_queue();
  const outlet::result_e result =
      way.send(message.m_header, static_cast<std::size_t>(message.datagram_size()),
               from == nullptr ? 0 : from->serial);
  if (result == outlet::QUEUED && !had_queue) watch_for(to, way.fd(), EPOLLOUT);
  if (result == outlet::GONE) give_up(to, "its socket is gone");
  if (result == outlet::FULL && is_reported(way.lost())) {
    REPORT_PROBLEM("%s does not read: its queue of %zu KiB is full for %s (%lu lost so far)", to.name.c_str(),
                   outlet::max_queued / 1024, from == nullptr ? m_name : from->name.c_str(), way.lost());
  }
  return result;
}

bool KXcore::watch(peer* owner, int fd, unsigned int events) {
  epoll_event entry = {};
  entry.events = events;
  entry.data.ptr = owner;
  return epoll_ctl(m_watched.get(), EPOLL_CTL_ADD, fd, &entry) == 0;
}

void KXcore::watch_for(peer& owner, int fd, unsigned int events) {
  if (watch(&owner, fd, events)) return;
  REPORT_PROBLEM("cannot watch a descriptor of %s: %s", owner.name.c_str(), strerror(errno));
}

int KXcore::static_serve_watched(void* context, int /*fd*/) {
  static_cast<KXcore*>(context)->serve_watched();
  return 0;
}

// Signals and processes are watched for EPOLLIN, sockets for EPOLLOUT; peers live until forget_gone_peers, so
// no event is stale.
void KXcore::serve_watched() {
  const bool held = holds_something();
  bool told_to_end = false;
  epoll_event events[64];
  const int count = epoll_wait(m_watched.get(), events, 64, 0);
  for (int i = 0; i < count; ++i) {
    auto* const owner = static_cast<peer*>(events[i].data.ptr);
    if (owner == nullptr) {
      told_to_end = true;
    } else if ((events[i].events & EPOLLIN) == 0) {
      flush(*owner, owner->mgmt);
      flush(*owner, owner->data);
    } else if (!held) {  // otherwise later: it is reported again
      owner->has_ended = m_processes_ended = true;
      m_data_ahead = socket_queue + 1;
    }
  }
  forget_gone_peers();
  if (told_to_end) take_signal();
  if (m_processes_ended) get_data_message(m_data_fd);
}

void KXcore::process_ended(peer& of) {
  if (of.is_unreachable(m_probe.get())) return give_up(of, "its process ended");
  of.pid = 0;  // a child of it goes on with its sockets
  of.has_ended = false;
  epoll_ctl(m_watched.get(), EPOLL_CTL_DEL, of.process.get(), nullptr);
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

void KXcore::give_up_unreachable_peers() {
  for (const auto& entry : m_peers)
    if (entry.second->is_unreachable(m_probe.get())) give_up(*entry.second, "it does not exist any more");
  forget_gone_peers();
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
    const std::vector<datagram> undelivered = gone->data.take_queue();
    const unsigned long queued = undelivered.size() + gone->mgmt.take_queue().size();
    if (const unsigned long lost = queued + gone->data.take_lost() + gone->mgmt.take_lost(); lost > 0) {
      REPORT_PROBLEM("%lu messages to %s are lost", lost, gone->name.c_str());
    }
    m_peers.erase(m_peers.find(gone->name));
    answer_lost_requests(undelivered);
    if (m_stopping) tell_to_end(1);
  }
  if (m_stopping && m_peers.empty()) m_running = false;
}

void KXcore::answer_lost_requests(const std::vector<datagram>& queue) {
  for (const datagram& bytes : queue) {
    const KXmessage message = message_of(bytes.data(), bytes.size());
    if (message.m_header->msg_type != MSG_REQ) continue;
    const endpoint* requester = m_directory.find(ntohl(message.m_header->src_siid));
    if (requester != nullptr) answer_undelivered(message, requester->holder(), "the component is gone");
  }
}

// --- stop ---

void KXcore::take_signal() {
  signalfd_siginfo taken = {};
  if (read(m_signals.get(), &taken, sizeof taken) == sizeof taken) begin_stop();
}

// Tells every component to end, and ends when they have unregistered, which without a core would cost each of
// them seconds of vain attempts. Those that do not are not waited for; told to end a second time, the core
// ends at once.
void KXcore::begin_stop() {
  if (m_stopping || m_peers.empty()) {
    m_running = false;
    return;
  }
  m_stopping = true;
  REPORT_EVENT("stopping: %zu components are told to end", m_peers.size());
  continue_stop();
  add_msec_timer(stop_interval_ms, this, static_continue_stop, 0);
}

void KXcore::tell_to_end(int count) {
  const KXmessage kill = make_management(MSG_SIG, CMD_KILL_COMPONENT, own_message_id);
  for (const auto& entry : m_peers) {
    if (count == 0) return;
    peer& each = *entry.second;
    if (each.is_told_to_end || each.is_gone) continue;
    each.is_told_to_end = true;
    send(each, each.mgmt, kill, nullptr);
    --count;
  }
}

// One step, taken in intervals: the next components are told, and in the last step all that are left.
int KXcore::continue_stop() {
  const bool is_last = ++m_stop_intervals == stop_intervals;
  tell_to_end(is_last ? static_cast<int>(m_peers.size()) : stop_group);
  forget_gone_peers();
  if (!is_last) return 0;
  m_running = false;
  return -1;
}

int KXcore::static_continue_stop(void* context, int /*cookie*/) {
  return static_cast<KXcore*>(context)->continue_stop();
}
