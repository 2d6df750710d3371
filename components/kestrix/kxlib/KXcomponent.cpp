// The component's invariants:
// - The first two entries of the poll set are the management and the data socket, for the component's whole
//   life.
// - m_timers is in order of expiry, and m_fda and m_fd_handlers are packed. m_mutex guards changes of all
//   three and of the close callback, and receiving from the data socket, so that the loop and a synchronous
//   wait on another thread never both wait for the same datagram. It is held while a timer handler runs, and
//   from a proxy's synchronous request to its response; the loop takes it to look at the earliest timer, to
//   fire it, and to receive data.
// - What the loop looks at besides has a lock of its own, which is held for a moment and never waited for
//   with anything else in hand but m_mutex: the poll set, whether there are timers, the waiting queue. What
//   changes the poll set or the timers holds both locks.
// - poll is given the poll set itself, without a lock. A change of it by another thread meanwhile is noticed
//   afterwards by the count of changes.
// - No siid maps to an empty set. Handlers may change the table at any time, so a walk looks its place up
//   again after each of them.
// - The signal handler takes neither a lock nor memory of its own. It leaves a note of what its INFO line
//   needs to the event loop's thread and sends a datagram. The lines that it writes itself (not handled,
//   those of the send, the INFO line where no loop runs or takes notes) are written while its thread writes
//   no other line of this library, because those hold the termination signals back.
#include "KXcomponent.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>

#include "KXconnection.h"
#include "KXinterface.h"
#include "KXlog.h"
#include "datagram.h"
#include "management.h"
#include "mutex_lock.h"
#include "pause.h"
#include "payload.h"
#include "race_with_poll.h"
#include "readable_wait.h"
#include "shared_member.h"
#include "signal_notes.h"
#include "socket_address.h"
#include "synchronous_wait.h"

namespace {

constexpr unsigned int ms_per_second = 1000;
constexpr unsigned int ms_per_hour = 3600 * ms_per_second;
constexpr unsigned int longest_timeout = 900 * ms_per_second;
constexpr unsigned int wrap_margin = longest_timeout + 99;

constexpr int send_attempts = 3;
constexpr KXcomponent::ExtraCfg usual_settings = {nullptr, true};
constexpr int termination_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGPIPE};

// Closes one of the component's sockets and removes its file. Who still waits for the socket is woken, and
// sees that it is closed before its descriptor can be somebody else's.
void release_socket(int& fd, const std::string& path) {
  const int closed = fd;
  store(fd, -1);
  shutdown(closed, SHUT_RDWR);
  close(closed);
  remove(path.c_str());
}

[[noreturn]] void refuse_bind(const std::string& path, int error) {
  KX_LOG_ERROR_IN("create_socket", "bind of unixsocket %s failed - %s", path.c_str(), strerror(error));
  errno = error;
  throw KXerror::ERR_SOCKET_BIND;
}

void check_path(const std::string& path) {
  if (path.size() > max_socket_path) refuse_bind(path, ENAMETOOLONG);
}

// One attempt to send; what sendto returns.
ssize_t offer(int fd, const char* path, const KXmessage& msg) {
  const sockaddr_un address = socket_address(path);
  const auto address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  return sendto(fd, msg.m_header, static_cast<std::size_t>(msg.datagram_size()), MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&address), address_length);
}

void trace_sent(const char* path, const KXmessage& msg) {
  const msg_header_t& header = *msg.m_header;
  if (is_management(msg)) {
    KX_LOG_DEBUG2_IN("send_message_to", "Send message to %s", path);
    KX_LOG_DEBUG3_IN("send_message_to", "TX : [%s]->[%s] : %s : %s", "INTERCONNECT", "INTERCONNECT",
                     msg_type_name(header.msg_type), mgmt_cmd_name(header.cmd));
  } else {
    KX_LOG_DEBUG2_IN("send_message_to", "Send message to %s (id=%d)", path, ntohl(header.msg_id));
    KX_LOG_DEBUG3_IN("send_message_to", "TX : [%d]->[%d] : %s : %d", ntohl(header.src_siid),
                     ntohl(header.dst_siid), msg_type_name(header.msg_type), header.cmd);
  }
}

void trace_received(const peer_info_t& peer, const KXmessage& msg) {
  const msg_header_t& header = *msg.m_header;
  const auto sender = [&peer] {  // of a failed read there is none
    return sender_path(peer.addr, peer.rx_len < 0 ? 0 : peer.addrlen);
  };
  if (is_management(msg)) {
    KX_LOG_DEBUG3_IN("rec_message", "RX : [%s]->[%s] : %s : %s", "INTERCONNECT", "INTERCONNECT",
                     msg_type_name(header.msg_type), mgmt_cmd_name(header.cmd));
    KX_LOG_DEBUG2_IN("rec_message", "Received message from %s", sender().text);
  } else {
    KX_LOG_DEBUG3_IN("rec_message", "RX : [%d]->[%d] : %s : %d", ntohl(header.src_siid),
                     ntohl(header.dst_siid), msg_type_name(header.msg_type), header.cmd);
    KX_LOG_DEBUG2_IN("rec_message", "Received message from %s (id=%d)", sender().text, ntohl(header.msg_id));
  }
}

void write_signal_line(const signal_note& note, const char* component) {
  KX_LOG_INFO_IN("sig_handler", "Signal %s (%d) received from %s: killing %s", strsignal(note.signal),
                 note.signal, note.sender, component);
}

void install_signal_handler() {
  struct sigaction action = {};
  action.sa_sigaction = sig_handler;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  for (const int sig : termination_signals)
    sigaction(sig, &action, nullptr);
}

}  // namespace

struct KXcomponent::shared_state {
  std::mutex mutex;                      // guards what m_mutex does not, or not alone
  unsigned int table_changes = 0;        // of the poll set
  bool stopping = false;                 // for the thread that stops alone
  std::atomic<pthread_t> loop_thread{};  // none outside of the event loop
  std::atomic<bool> woken{false};        // since the loop looked at the waiting queue
  signal_notes notes;
  std::string refusal;  // of the last management exchange
};

// --- clock ---

unsigned int get_currentTime() {
  struct timespec now = {};
  const int result = clock_gettime(CLOCK_MONOTONIC, &now);
  if (result != 0) {
    KX_LOG_ERROR("mc_run : clock_gettime returned %d", result);
    return 0;
  }
  const auto seconds = static_cast<unsigned int>(now.tv_sec % 3600);
  return (seconds * ms_per_second + static_cast<unsigned int>(now.tv_nsec / 1'000'000)) % ms_per_hour;
}

unsigned int get_timeout(unsigned int to) {
  return (get_currentTime() + std::min(to, longest_timeout)) % ms_per_hour + 1;
}

int remaining_time(unsigned int now, unsigned int ato) {
  if (now <= ato) {
    const unsigned int ahead = ato - now;
    return ahead <= wrap_margin ? static_cast<int>(ahead) : 0;
  }
  const unsigned int behind = now - ato;
  return behind <= wrap_margin ? 0 : static_cast<int>(ato + ms_per_hour - now);
}

// --- peer address ---

peer_info_t::peer_info_t() : addrlen(sizeof addr), rx_len(0) { addr.sun_family = AF_UNIX; }

int peer_info_t::path(std::string& p) {
  if (p.size() > max_socket_path) return -1;
  std::memcpy(addr.sun_path, p.c_str(), p.size() + 1);
  KX_LOG_DEBUG3("socket path [%s]\n", addr.sun_path);
  return 0;
}

// --- construction ---

KXcomponent* KXcomponent::static_kxc = nullptr;

KXcomponent::KXcomponent(const char* name) : KXcomponent(name, &usual_settings) {}

KXcomponent::KXcomponent(const char* name, const ExtraCfg* cfg)
    : m_nfds(0),
      m_close_cb(nullptr),
      m_name(name),
      m_running(false),
      m_data_fd(-1),
      m_mgmt_fd(-1),
      m_shared(new shared_state) {
  construct(cfg == nullptr ? nullptr : cfg->subdir, cfg != nullptr && cfg->handle_signals);
}

void KXcomponent::construct(const char* subdir, bool handle_signals) {
  m_socket_dir = bus_path;
  if (subdir != nullptr) m_socket_dir += std::string(subdir) + "/";
  const std::string base_name = get_socket_base_name();
  check_path(base_name);
  check_path(base_name + "-d");

  mkdir(bus_path, 0777);
  if (subdir != nullptr) mkdir(m_socket_dir.c_str(), 0777);
  KX_LOG_DEBUG1_IN("KXcomponent", "create kestrix specific directory [%s]\n", m_socket_dir.c_str());

  pthread_mutexattr_t recursive;
  pthread_mutexattr_init(&recursive);
  pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &recursive);
  pthread_mutexattr_destroy(&recursive);

  m_mgmt_socket_name = base_name;
  m_data_socket_name = base_name + "-d";
  m_mgmt_fd = create_socket(m_mgmt_socket_name);
  add_socket_descriptor(m_mgmt_fd, this, static_get_mgmt_message);
  try {
    m_data_fd = create_socket(m_data_socket_name);
  } catch (...) {
    release_socket(m_mgmt_fd, m_mgmt_socket_name);
    throw;
  }
  add_socket_descriptor(m_data_fd, this, static_get_data_message);

  if (handle_signals) {
    tzset();  // the first syslog of a process would read the time zone, and allocate, perhaps in the handler
    install_signal_handler();
  }
  static_kxc = this;
}

KXcomponent::~KXcomponent() {
  static_kxc = nullptr;
  KX_LOG_DEBUG1("called");
  for (const auto& entry : m_siid_map)
    delete entry.second;
  pthread_mutex_destroy(&m_mutex);
}

std::string KXcomponent::get_socket_base_name() { return m_socket_dir + m_name; }

int KXcomponent::create_socket(std::string& path) {
  KX_LOG_DEBUG1("create socket %s\n", path.c_str());
  check_path(path);
  remove(path.c_str());

  const sockaddr_un address = socket_address(path);
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  fcntl(fd, F_SETFD, FD_CLOEXEC);  // a program that the component starts must not outlive it as their owner
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;

  const int error = errno;
  if (fd >= 0) close(fd);
  refuse_bind(path, error);
}

int KXcomponent::static_get_data_message(void* context, int fd) {
  static_cast<KXcomponent*>(context)->get_data_message(fd);
  return 0;
}

int KXcomponent::static_get_mgmt_message(void* context, int fd) {
  auto* const component = static_cast<KXcomponent*>(context);
  component->m_unserved_kills = 0;
  component->get_mgmt_message(fd);
  return 0;
}

// --- what a concrete component overrides ---

bool KXcomponent::interconnect_service(KXconnection*, KXmessage&) { return false; }
void KXcomponent::register_component() {}
void KXcomponent::unregister_component() {}
int KXcomponent::send_mgmt_message(KXmessage&) { return 0; }
int KXcomponent::send_data_message(KXmessage&) { return 0; }

const std::string& KXcomponent::last_refusal() const { return m_shared->refusal; }

void KXcomponent::keep_refusal(const KXmessage* answer) {
  const bool has_reason = answer != nullptr && payload(*answer).take(m_shared->refusal);
  if (!has_reason) m_shared->refusal.clear();
}

// --- datagrams ---

int KXcomponent::send_message_to(int fd, const char* path, KXmessage& msg) {
  if (fd < 1) {
    KX_LOG_ERROR("Socket is closed => unable to send msg");
    return -1;
  }
  if (std::strlen(path) > max_socket_path) {
    KX_LOG_ERROR("Destination path %s is longer than %d bytes => unable to send msg", path,
                 static_cast<int>(max_socket_path));
    return -1;
  }
  trace_sent(path, msg);

  const int length = msg.datagram_size();
  for (int attempt = 0;;) {
    if (offer(fd, path, msg) == length) {
      if (attempt > 0) KX_LOG_INFO("!!!!!!!Succeeded to send msg (attempt=%d) to %d:%s", attempt, fd, path);
      return length;
    }
    KX_LOG_DEBUG3("msg.length: %i", length);
    KX_LOG_ERROR("!!!!!!!!!!!!!!!!!!!!!!!Error sending message (attempt=%d) to %d:%s: %s (%d)", attempt, fd,
                 path, strerror(errno), errno);
    ++attempt;
    if (attempt == send_attempts) {
      KX_LOG_ERROR("!!!!!!!!!!!!!!!!!!!!!!!sending message to %s: %s (%d)", path, strerror(errno), errno);
      return -1;
    }
    KX_LOG_INFO("Resending message after 1 sec id=%d [%d]", ntohl(msg.m_header->msg_id), attempt);
    pause_one_second();
  }
}

void KXcomponent::pause_one_second() { pause_for_a_second(); }

bool KXcomponent::owns(int fd) const { return fd == load(m_data_fd) || fd == load(m_mgmt_fd); }

// As select returns; -1 for a negative descriptor, and for one of the component's own that stop closes
// meanwhile, or has closed just before.
int KXcomponent::await_datagram(int fd, bool timeout) const {
  if (fd < 0) return -1;
  const bool own = owns(fd);
  readable_wait readable(fd, timeout);
  for (;;) {
    const int ready = readable();
    if (own && !owns(fd)) return -1;
    if (ready >= 0) return ready;
    if (errno == EBADF && load(m_data_fd) < 0) return -1;
    KX_LOG_WARNING_IN("rec_message", "select failed - %s", strerror(errno));
  }
}

int KXcomponent::rec_message(int fd, KXmessage& msg, bool timeout, peer_info_t& peer) {
  const int ready = await_datagram(fd, timeout);
  if (ready < 0) {
    KX_LOG_ERROR("Socket is closed => unable to receive msg");
    return -1;
  }
  if (ready == 0) {
    KX_LOG_WARNING("Receive message timeout");
    return 0;
  }
  peer.addrlen = sizeof peer.addr;
  const int header_offset = msg.offset - header_size;
  peer.rx_len = static_cast<int>(recvfrom(fd, msg.m_header,
                                          static_cast<std::size_t>(buffer_t::capacity - header_offset), 0,
                                          reinterpret_cast<sockaddr*>(&peer.addr), &peer.addrlen));
  take_datagram(msg, peer.rx_len);
  trace_received(peer, msg);
  return peer.rx_len;
}

bool KXcomponent::holds_header(int received, const char* operation) {
  if (received >= header_size) return true;
  KX_LOG_WARNING_IN(operation, "dropped a datagram of %d bytes, shorter than a message header", received);
  return false;
}

// --- timers and descriptors ---

int KXcomponent::add_msec_timer(int to, void* context, handler_t handler, int cookie) {
  const auto timeout = static_cast<unsigned int>(to);
  const timer_entry_t timer = {handler, context, cookie, to, get_timeout(timeout)};
  KX_LOG_DEBUG3("add timer : to[%d], cookie[%d] ato[%d]", to, cookie, timer.ato);

  std::list<timer_entry_t> armed{timer};
  const mutex_lock lock(m_mutex);
  auto place = m_timers.begin();
  if (place != m_timers.end()) {
    const unsigned int now = get_currentTime();
    place = std::find_if(place, m_timers.end(), [timeout, now](const timer_entry_t& each) {
      return timeout < static_cast<unsigned int>(remaining_time(now, each.ato));
    });
  }
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  m_timers.splice(place, armed);
  return 0;
}

int KXcomponent::add_timer(int seconds, void* context, handler_t handler, int cookie) {
  const unsigned int to = static_cast<unsigned int>(seconds) * ms_per_second;
  return add_msec_timer(static_cast<int>(to), context, handler, cookie);
}

std::list<KXcomponent::timer_entry_t>::iterator KXcomponent::find_timer(void* context, handler_t handler,
                                                                        int cookie) {
  return std::find_if(m_timers.begin(), m_timers.end(), [=](const timer_entry_t& timer) {
    return timer.context == context && timer.handler == handler && timer.cookie == cookie;
  });
}

void KXcomponent::erase_timer(std::list<timer_entry_t>::iterator timer) {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  m_timers.erase(timer);
}

int KXcomponent::del_timer(void* context, handler_t handler, int cookie) {
  KX_LOG_DEBUG2("del timer : cookie[%d]", cookie);
  const mutex_lock lock(m_mutex);
  const auto timer = find_timer(context, handler, cookie);
  if (timer != m_timers.end()) erase_timer(timer);
  return 0;
}

int KXcomponent::has_timer(void* context, handler_t handler, int cookie) {
  KX_LOG_DEBUG2("has timer : cookie[%d]", cookie);
  const mutex_lock lock(m_mutex);
  return find_timer(context, handler, cookie) != m_timers.end() ? 1 : 0;
}

int KXcomponent::add_socket_descriptor(int fd, void* context, handler_t handler) {
  if (fd < 0) {
    KX_LOG_ERROR("Not allowed to add descriptor with value fd = %d: it is < 0", fd);
    return -1;
  }
  int index = 0;
  {
    const mutex_lock lock(m_mutex);
    const std::lock_guard<std::mutex> shared(m_shared->mutex);
    if (m_nfds == max_descriptors) return -1;
    index = m_nfds;
    m_fda[index] = {fd, POLLIN | POLLERR | POLLHUP, 0};
    m_fd_handlers[index] = {handler, context};
    ++m_nfds;
    ++m_shared->table_changes;
  }
  KX_LOG_DEBUG1("add generic descriptor (m_fda[%d]=%d)\n", index, fd);
  return index;
}

void KXcomponent::remove_socket_descriptor(int fd) {
  KX_LOG_DEBUG1("remove generic descriptor [%d]\n", fd);
  const mutex_lock lock(m_mutex);
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  const auto used = m_fda + m_nfds;
  const auto entry = std::find_if(m_fda, used, [fd](const struct pollfd& each) { return each.fd == fd; });
  if (entry == used) return;
  const auto index = entry - m_fda;
  std::copy(entry + 1, used, entry);
  std::copy(m_fd_handlers + index + 1, m_fd_handlers + m_nfds, m_fd_handlers + index);
  --m_nfds;
  ++m_shared->table_changes;
}

int KXcomponent::add_close_cb(int (*cb)()) {
  {
    const mutex_lock lock(m_mutex);
    store(m_close_cb, cb);
  }
  KX_LOG_INFO("add close callback\n");
  return 0;
}

// --- event loop ---

void KXcomponent::add_interface(KXinterface* iface) { m_interfaces.push_back(iface); }

// As long as the loop runs, signal handlers leave notes to it. In whatever way it ends, it writes their
// lines.
class KXcomponent::loop_scope {
 public:
  explicit loop_scope(KXcomponent& component) : m_component(component) {
    m_component.m_shared->loop_thread = pthread_self();
  }
  ~loop_scope() {
    m_component.m_shared->loop_thread = pthread_t{};
    m_component.write_signal_lines();
  }
  loop_scope(const loop_scope&) = delete;
  loop_scope& operator=(const loop_scope&) = delete;

 private:
  KXcomponent& m_component;
};

void KXcomponent::wait(bool run) {
  const loop_scope scope(*this);
  store(m_running, run);
  while (load(m_running)) {
    dispatch_waiting_queue();
    const bool stopped = load(m_data_fd) < 0;  // by a handler
    const int ready = poll_descriptors(stopped ? 0 : poll_timeout());
    write_signal_lines();
    if (stopped && !is_invalid()) {  // the descriptor is somebody else's by now
      store(m_running, false);
    } else if (ready == 0) {
      fire_earliest_timer();
    } else if (ready > 0) {
      serve_descriptors();
    }
  }
  write_signal_lines();
  KX_LOG_INFO("Exit polling loop\n");
  stop();
}

void KXcomponent::set_aside(const KXmessage& message) {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  m_waiting_queue.push_back(message);
}

bool KXcomponent::has_waiting_messages() const {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  return !m_waiting_queue.empty();
}

// A handler may make an exchange that takes a wake-up for what came meanwhile from the management socket:
// none is on its way before any look at the queue.
void KXcomponent::dispatch_waiting_queue() {
  for (m_shared->woken = false; has_waiting_messages(); m_shared->woken = false) {
    KXmessage message;
    {
      const std::lock_guard<std::mutex> shared(m_shared->mutex);
      message = m_waiting_queue.front();
    }
    const msg_header_t& header = *message.m_header;
    if (is_management(message)) {
      KX_LOG_DEBUG3_IN("wait", "waiting RX : [%s]->[%s] : %s : %s (id=%d)\n", "INTERCONNECT", "INTERCONNECT",
                       msg_type_name(header.msg_type), mgmt_cmd_name(header.cmd), ntohl(header.msg_id));
    } else {
      KX_LOG_DEBUG3_IN("wait", "waiting RX : [%d]->[%d] : %s : %d (id=%d)\n", ntohl(header.src_siid),
                       ntohl(header.dst_siid), msg_type_name(header.msg_type), header.cmd,
                       ntohl(header.msg_id));
    }
    deliver(message);
    const std::lock_guard<std::mutex> shared(m_shared->mutex);
    m_waiting_queue.pop_front();
  }
}

void KXcomponent::deliver(KXmessage& message) {
  const unsigned int siid = ntohl(message.m_header->dst_siid);
  KXconnection* served = nullptr;
  for (;;) {
    const auto entry = m_siid_map.find(siid);
    if (entry == m_siid_map.end()) return;
    const auto next = entry->second->upper_bound(served);
    if (next == entry->second->end()) return;
    served = *next;
    served->connection_process_message(message);
  }
}

// The milliseconds until the earliest timer is due; -1 without one. No synchronous wait is under way while
// the mutex is held: what one has left in the waiting queue comes before what the data socket holds.
int KXcomponent::poll_timeout() {
  unsigned int deadline = 0;
  {
    const mutex_lock lock(m_mutex);
    m_data_taken = has_waiting_messages();
    if (!m_timers.empty()) deadline = m_timers.front().ato;
  }
  return deadline == 0 ? -1 : remaining_time(get_currentTime(), deadline);
}

// What poll returns; but -1 for events when another thread has changed the poll set meanwhile, since they may
// stand with the wrong entries. The next poll reports them again.
int KXcomponent::poll_descriptors(int timeout) {
  int count = 0;
  unsigned int changes = 0;
  {
    const std::lock_guard<std::mutex> shared(m_shared->mutex);
    count = m_nfds;
    changes = m_shared->table_changes;
  }
  m_unserved_kills = 0;  // poll returns at once if one is unread
  int ready;
  do {
    const race_with_poll tolerated;
    ready = poll(m_fda, static_cast<nfds_t>(count), timeout);
  } while (ready == -1 && errno == EINTR);

  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  return ready > 0 && m_shared->table_changes != changes ? -1 : ready;
}

bool KXcomponent::has_timers() const {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  return !m_timers.empty();
}

void KXcomponent::fire_earliest_timer() {
  if (has_timers()) {
    const mutex_lock lock(m_mutex);
    if (!m_timers.empty()) return fire(m_timers.front());
  }
  KX_LOG_WARNING_IN("wait", "got a time out while there is no timer\n");
}

void KXcomponent::fire(const timer_entry_t timer) {
  const int result = timer.handler(timer.context, timer.cookie);
  retire(timer);
  if (result != -1) add_msec_timer(timer.to, timer.context, timer.handler, timer.cookie);
}

// Removes the timer whose handler has just run. It is still the head unless the handler removed it, or,
// called before the timer was due, armed one that is due earlier.
void KXcomponent::retire(const timer_entry_t& fired) {
  if (m_timers.empty()) {
    KX_LOG_ERROR_IN("wait", "Callback function removed itself from list of timers (list of timers is empty)");
  } else if (const timer_entry_t& head = m_timers.front();
             head.handler == fired.handler && head.context == fired.context && head.cookie == fired.cookie) {
    return erase_timer(m_timers.begin());
  } else {
    KX_LOG_ERROR_IN("wait", "Callback function removed itself from list of timers");
  }
  kxlog::assert_failed("false", "components/kestrix/kxlib/KXcomponent", __LINE__,
                       "void KXcomponent::wait(bool)");
}

void KXcomponent::serve_descriptors() {
  struct pollfd entry = {};
  fd_handler_t handler = {};
  for (int i = 0; ready_from(i, entry, handler); ++i) {
    const int fd = entry.fd;
    const short events = entry.revents;
    if ((events & POLLNVAL) != 0) {
      KX_LOG_ERROR_IN("wait", "POLLNVAL [m_fda[i=%d].fd=%d] - %s", i, fd, strerror(errno));
      store(m_running, false);
      return;
    }
    if ((events & POLLERR) != 0) {
      KX_LOG_ERROR_IN("wait", "POLLERR [m_fda[i=%d].fd=%d] - %s", i, fd, strerror(errno));
    } else if ((events & POLLHUP) != 0) {
      KX_LOG_ERROR_IN("wait", "POLLHUP [m_fda[i=%d].fd=%d] - %s", i, fd, strerror(errno));
    } else if ((events & POLLIN) != 0) {
      if (handler.handler(handler.context, fd) == -1) remove_socket_descriptor(fd);
    }
  }
}

// Whether poll has found the management socket closed.
bool KXcomponent::is_invalid() const {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  return m_nfds > 0 && (m_fda[0].revents & POLLNVAL) != 0;
}

// Moves `index` on to the first entry with events from there on, and copies that; whether there is one.
bool KXcomponent::ready_from(int& index, struct pollfd& entry, fd_handler_t& handler) const {
  const std::lock_guard<std::mutex> shared(m_shared->mutex);
  while (index < m_nfds && m_fda[index].revents == 0)
    ++index;
  if (index >= m_nfds) return false;
  entry = m_fda[index];
  handler = m_fd_handlers[index];
  return true;
}

// --- synchronous waits beside the loop ---

bool KXcomponent::loop_runs() const { return m_shared->loop_thread != pthread_t{}; }

// Also in the last turn of a loop that has been told to end: it still serves its descriptors.
bool KXcomponent::loop_runs_elsewhere() const {
  const pthread_t loop = m_shared->loop_thread;
  return loop != pthread_t{} && pthread_equal(loop, pthread_self()) == 0;
}

// A management message without a command makes poll return. Where there is no room for it, others do.
void KXcomponent::wake_loop() {
  if (m_shared->woken.exchange(true)) return;
  const KXmessage message = make_management(MSG_SIG, CMD_NONE, own_message_id);
  if (offer(load(m_mgmt_fd), m_mgmt_socket_name.c_str(), message) < 0) m_shared->woken = false;
}

synchronous_wait::synchronous_wait(KXcomponent& component) : m_component(component) {
  if (m_component.loop_runs_elsewhere()) m_component.m_data_taken = true;
}

// What was set aside may have been all that would have woken the loop.
synchronous_wait::~synchronous_wait() {
  if (m_component.loop_runs_elsewhere() && m_component.has_waiting_messages()) m_component.wake_loop();
}

// --- start, stop and signals ---

void KXcomponent::start(cmp_start_e mode) {
  register_component();
  if (m_interfaces.empty()) KX_LOG_INFO("No interfaces to process\n");
  for (KXinterface* iface : m_interfaces)
    iface->startup_phase0(this);
  for (KXinterface* iface : m_interfaces)
    iface->startup_phase1(this);
  for (KXinterface* iface : m_interfaces)
    iface->startup_phase2(this);
  KX_LOG_DEBUG1("%s: KESTRIX init_done, process is now ready to process data normally...\n", "start");
  wait(mode == CMP_START_AND_LOOP);
}

// Marks a stop that is under way, for a call from inside of it.
class KXcomponent::stop_scope {
 public:
  explicit stop_scope(bool& stopping) : m_stopping(stopping) { m_stopping = true; }
  ~stop_scope() { m_stopping = false; }
  stop_scope(const stop_scope&) = delete;
  stop_scope& operator=(const stop_scope&) = delete;

 private:
  bool& m_stopping;
};

void KXcomponent::stop() {
  if (load(m_data_fd) < 0 || m_shared->stopping) {
    KX_LOG_DEBUG1("nothing to do");
    return;
  }
  const stop_scope scope(m_shared->stopping);
  KX_LOG_DEBUG1("unregister/unsubscribe services\n");
  if (int (*const callback)() = load(m_close_cb); callback != nullptr) callback();
  m_connections.unique();
  for (KXconnection* connection : m_connections)
    connection->disconnect(false);
  KX_LOG_DEBUG1("unregister component\n");
  unregister_component();
  release_socket(m_data_fd, m_data_socket_name);
  release_socket(m_mgmt_fd, m_mgmt_socket_name);
  KX_LOG_DEBUG1("stop finished");
}

int KXcomponent::sendKillMsgToSelf() {
  KXmessage message = make_management(MSG_SIG, CMD_KILL_COMPONENT, own_message_id);
  const int sent = send_message_to(load(m_mgmt_fd), m_mgmt_socket_name.c_str(), message);
  if (sent > 0) ++m_unserved_kills;
  return sent;
}

// Runs in the signal handler. The line is left to the loop, if one runs and takes notes. That may have ended
// before it saw this one.
void KXcomponent::note_signal(int sig, pid_t sender) {
  signal_note note;
  take_note(note, sig, sender);
  if (!loop_runs() || !m_shared->notes.add(note)) return write_signal_line(note, m_name);
  if (!loop_runs()) write_signal_lines();
}

void KXcomponent::write_signal_lines() {
  for (signal_note note; m_shared->notes.take(note);)
    write_signal_line(note, m_name);
}

void sig_handler(int sig, siginfo_t* info, void* /*ctx*/) {
  const int interrupted_errno = errno;
  KXcomponent* const component = KXcomponent::static_kxc;
  if (component == nullptr || !load(component->m_running)) {
    KX_LOG_ERROR("Signal %s (%d) not handled: component already stopped", strsignal(sig), sig);
  } else {
    if (kxlog::enabled(kxlog::LEVEL_INFO)) component->note_signal(sig, info->si_pid);
    // So many are enough. For room in a full socket each further signal would only wait.
    if (component->m_unserved_kills < signal_notes::capacity) component->sendKillMsgToSelf();
  }
  errno = interrupted_errno;
}

// --- service-instance registry ---

void KXcomponent::bind_siid(unsigned int siid, KXconnection* conn) {
  std::list<KXconnection*> listed{conn};
  if (siid != no_siid) {
    const auto entry = m_siid_map.find(siid);
    if (entry != m_siid_map.end() && conn->m_interface_type != KXconnection::SGNL) {
      KX_LOG_ERROR("service with siid [%d] already present\n", siid);
      throw KXerror::ERR_SIID_PRESENT;
    }
    if (entry == m_siid_map.end()) {
      auto connections = std::make_unique<std::set<KXconnection*>>();
      connections->insert(conn);
      m_siid_map.emplace(siid, connections.get());
      static_cast<void>(connections.release());
    } else {
      entry->second->insert(conn);
    }
  }
  m_connections.splice(m_connections.end(), listed);
}

void KXcomponent::remove_connection(KXconnection* conn) {
  if (conn == nullptr) return;
  const unsigned int siid = conn->m_siid;
  KX_LOG_DEBUG3("erase siid=%d", siid);
  if (siid != no_siid) {
    const auto entry = m_siid_map.find(siid);
    if (entry == m_siid_map.end()) {
      KX_LOG_ERROR("no service with siid [%d] found", siid);
    } else {
      entry->second->erase(conn);
      KX_LOG_DEBUG3("erased connection=%p from siid=%d", static_cast<void*>(conn), siid);
      if (entry->second->empty()) {
        delete entry->second;
        KX_LOG_DEBUG3("deleted set");
        m_siid_map.erase(entry);
        KX_LOG_DEBUG3("erased siid=%d", siid);
      }
    }
  }
  const auto listed = std::find(m_connections.begin(), m_connections.end(), conn);
  if (listed == m_connections.end()) return;
  m_connections.erase(listed);
  KX_LOG_DEBUG1("erased connection for siid=%d", siid);
}
