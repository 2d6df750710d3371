// The component's invariants:
// - The first two entries of the poll set are the management and the data socket, for the component's whole
//   life.
// - m_timers is in order of expiry, and m_fda and m_fd_handlers are packed; m_mutex guards all three and the
//   waiting queue. It is held while a timer handler runs and while a proxy waits for a synchronous response,
//   never by the loop while another handler or poll runs.
// - Whoever receives from the data socket holds m_mutex, so that the loop and a synchronous wait on another
//   thread never both wait for the same datagram.
// - No siid maps to an empty set. Handlers may change the table at any time, so a walk looks its place up
//   again after each of them.
// - The signal handler sends a datagram and leaves the rest to the event loop's thread. It takes neither a
//   lock nor memory of its own; the lines that it cannot leave (not handled, a send that fails) are written
//   while no other line of this library is, because those hold the signals back.
#include "KXcomponent.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "KXconnection.h"
#include "KXinterface.h"
#include "KXlog.h"
#include "mutex_lock.h"

namespace {

constexpr char bus_directory[] = "/tmp/kxcore/";
constexpr std::size_t max_path_length = sizeof(sockaddr_un::sun_path) - 1;

constexpr unsigned int ms_per_second = 1000;
constexpr unsigned int ms_per_hour = 3600 * ms_per_second;
constexpr unsigned int longest_timeout = 900 * ms_per_second;
constexpr unsigned int wrap_margin = longest_timeout + 99;

constexpr int send_attempts = 3;
constexpr int receive_limit_seconds = 10;
constexpr unsigned int own_message_id = 0x33333333;  // which no exchange awaits
constexpr int termination_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGPIPE};
constexpr int max_unread_own = std::size(termination_signals);
constexpr short asked_for = -1;  // no set of events

// Closes one of the component's sockets and removes its file.
void release_socket(int& fd, const std::string& path) {
  close(std::exchange(fd, -1));
  remove(path.c_str());
}

[[noreturn]] void refuse_bind(const std::string& path, int error) {
  KX_LOG_ERROR_IN("create_socket", "bind of unixsocket %s failed - %s", path.c_str(), strerror(error));
  errno = error;
  throw KXerror::ERR_SOCKET_BIND;
}

void check_path(const std::string& path) {
  if (path.size() > max_path_length) refuse_bind(path, ENAMETOOLONG);
}

KXmessage make_management_message(mgmt_cmd_e cmd, unsigned int msg_id) {
  KXmessage message;
  message.m_header->dst_siid = htonl(management_siid);
  message.m_header->src_siid = htonl(management_siid);
  message.m_header->msg_type = MSG_SIG;
  message.m_header->cmd = cmd;
  message.m_header->msg_id = htonl(msg_id);
  return message;
}

bool is_management(const KXmessage& msg) { return ntohl(msg.m_header->src_siid) == management_siid; }

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

// The sender's path as a C string: what the system wrote, up to the first NUL, and never more than the field
// holds.
struct sender_path {
  char text[sizeof(sockaddr_un::sun_path) + 1] = {};

  explicit sender_path(const peer_info_t& peer) {
    constexpr std::size_t path_offset = offsetof(sockaddr_un, sun_path);
    if (peer.rx_len < 0 || peer.addrlen <= path_offset) return;
    std::memcpy(text, peer.addr.sun_path, std::min(peer.addrlen - path_offset, sizeof peer.addr.sun_path));
  }
};

void trace_received(const peer_info_t& peer, const KXmessage& msg) {
  const msg_header_t& header = *msg.m_header;
  if (is_management(msg)) {
    KX_LOG_DEBUG3_IN("rec_message", "RX : [%s]->[%s] : %s : %s", "INTERCONNECT", "INTERCONNECT",
                     msg_type_name(header.msg_type), mgmt_cmd_name(header.cmd));
    KX_LOG_DEBUG2_IN("rec_message", "Received message from %s", sender_path(peer).text);
  } else {
    KX_LOG_DEBUG3_IN("rec_message", "RX : [%d]->[%d] : %s : %d", ntohl(header.src_siid),
                     ntohl(header.dst_siid), msg_type_name(header.msg_type), header.cmd);
    KX_LOG_DEBUG2_IN("rec_message", "Received message from %s (id=%d)", sender_path(peer).text,
                     ntohl(header.msg_id));
  }
}

unsigned int elapsed_since(unsigned int stamp) {
  return (get_currentTime() + ms_per_hour - stamp) % ms_per_hour;
}

// Waits for `fd` to become readable, as select does: `limit` (none when null) shrinks by the time waited.
int wait_readable(int fd, fd_set& readable, struct timeval* limit) {
  if (fd < FD_SETSIZE) return select(fd + 1, &readable, nullptr, nullptr, limit);
  struct pollfd entry = {fd, POLLIN, 0};
  if (limit == nullptr) return poll(&entry, 1, -1);
  const unsigned int started = get_currentTime();
  const unsigned int left = static_cast<unsigned int>(limit->tv_sec) * ms_per_second +
                            static_cast<unsigned int>(limit->tv_usec) / 1000;
  const int ready = poll(&entry, 1, static_cast<int>(left));
  const unsigned int remaining = left - std::min(left, elapsed_since(started));
  limit->tv_sec = static_cast<time_t>(remaining / ms_per_second);
  limit->tv_usec = static_cast<suseconds_t>(remaining % ms_per_second * 1000);
  return ready;
}

// What the INFO line about one termination signal needs. The handler fills a note, the event loop's thread
// writes the line. There is one note for each kind of signal: like pending signals, equal ones that arrive
// before the line is written share it.
struct signal_text {
  static constexpr std::size_t sender_size = 1024;  // without the final NUL, which stays

  pid_t pid;
  bool from_proc;
  char sender[sender_size + 1];
  char component[sizeof(sockaddr_un::sun_path)];
};

struct signal_note {
  enum state_e : int { EMPTY, FILLING, READY };

  std::atomic<int> state{EMPTY};
  signal_text text;
};

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler takes no lock");

signal_note signal_notes[sizeof termination_signals / sizeof termination_signals[0]];
std::atomic<bool> signals_noted{false};  // since the loop looked last

// Writes "/proc/<pid>/cmdline"; snprintf is not async-signal-safe.
void write_cmdline_path(char (&path)[40], pid_t pid) {
  char digits[12];
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + pid % 10);
    pid /= 10;
  } while (pid > 0);
  std::memcpy(path, "/proc/", 6);
  char* to = path + 6;
  while (count > 0)
    *to++ = digits[--count];
  std::memcpy(to, "/cmdline", sizeof "/cmdline");
}

// Reads the first 1024 bytes of the sender's command line; whether there were any.
bool read_cmdline(pid_t pid, char (&text)[signal_text::sender_size + 1]) {
  char path[40];
  write_cmdline_path(path, pid);
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return false;
  const ssize_t count = read(fd, text, signal_text::sender_size);
  close(fd);
  if (count <= 0) return false;
  if (text[count - 1] == '\n') text[count - 1] = '\0';
  return true;
}

// Runs in the signal handler.
void take_signal_note(int sig, pid_t sender, const char* component) {
  const auto kind = std::find(std::begin(termination_signals), std::end(termination_signals), sig);
  if (kind == std::end(termination_signals)) return;
  signal_note& note = signal_notes[kind - termination_signals];
  int expected = signal_note::EMPTY;
  if (!note.state.compare_exchange_strong(expected, signal_note::FILLING)) return;
  signal_text& text = note.text;
  std::memset(text.sender, 0, sizeof text.sender);
  text.pid = sender;
  text.from_proc = read_cmdline(sender, text.sender);
  text.component[0] = '\0';
  std::strncat(text.component, component, sizeof text.component - 1);
  note.state = signal_note::READY;
  signals_noted = true;
}

// Runs on the event loop's thread: writes the lines of the signals taken since the last time.
void log_signals() {
  if (!signals_noted) return;
  signals_noted = false;
  for (std::size_t i = 0; i < std::size(signal_notes); ++i) {
    int expected = signal_note::READY;
    if (!signal_notes[i].state.compare_exchange_strong(expected, signal_note::FILLING)) continue;
    signal_text text = signal_notes[i].text;
    signal_notes[i].state = signal_note::EMPTY;  // a signal that comes while the line is written gets its own
    if (!text.from_proc) std::snprintf(text.sender, sizeof text.sender, "(pid)  %d", text.pid);
    const int sig = termination_signals[i];
    KX_LOG_INFO_IN("sig_handler", "Signal %s (%d) received from %s: killing %s", strsignal(sig), sig,
                   text.sender, text.component);
  }
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
  if (p.size() > max_path_length) return -1;
  std::memcpy(addr.sun_path, p.c_str(), p.size() + 1);
  KX_LOG_DEBUG3("socket path [%s]\n", addr.sun_path);
  return 0;
}

// --- construction ---

KXcomponent* KXcomponent::static_kxc = nullptr;

KXcomponent::KXcomponent(const char* name)
    : m_nfds(0), m_close_cb(nullptr), m_name(name), m_running(false), m_data_fd(-1), m_mgmt_fd(-1) {
  construct(nullptr, true);
}

KXcomponent::KXcomponent(const char* name, const ExtraCfg* cfg)
    : m_nfds(0), m_close_cb(nullptr), m_name(name), m_running(false), m_data_fd(-1), m_mgmt_fd(-1) {
  construct(cfg == nullptr ? nullptr : cfg->subdir, cfg != nullptr && cfg->handle_signals);
}

void KXcomponent::construct(const char* subdir, bool handle_signals) {
  m_socket_dir = bus_directory;
  if (subdir != nullptr) m_socket_dir += std::string(subdir) + "/";
  const std::string base_name = get_socket_base_name();
  check_path(base_name);
  check_path(base_name + "-d");

  mkdir(bus_directory, 0777);
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

  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());

  // Closed on exec: a program that the component starts must not outlive it as the owner of its sockets.
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
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
  static_cast<KXcomponent*>(context)->get_mgmt_message(fd);
  return 0;
}

// --- what a concrete component overrides ---

bool KXcomponent::interconnect_service(KXconnection*, KXmessage&) { return false; }
void KXcomponent::register_component() {}
void KXcomponent::unregister_component() {}
int KXcomponent::send_mgmt_message(KXmessage&) { return 0; }
int KXcomponent::send_data_message(KXmessage&) { return 0; }

// --- datagrams ---

int KXcomponent::send_message_to(int fd, const char* path, KXmessage& msg) {
  if (fd < 1) {
    KX_LOG_ERROR("Socket is closed => unable to send msg");
    return -1;
  }
  const std::size_t path_length = std::strlen(path);
  if (path_length > max_path_length) {
    KX_LOG_ERROR("Destination path %s is longer than %d bytes => unable to send msg", path,
                 static_cast<int>(max_path_length));
    return -1;
  }
  trace_sent(path, msg);

  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, path_length);
  const auto address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_length);

  const int length = msg.datagram_size();
  for (int attempt = 0;;) {
    const ssize_t sent = sendto(fd, msg.m_header, static_cast<std::size_t>(length), MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr*>(&address), address_length);
    if (sent == length) {
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

void KXcomponent::pause_one_second() {
  const unsigned int begun = get_currentTime();
  do {
    errno = 0;
    sleep(1);
  } while (errno == EINTR && elapsed_since(begun) < ms_per_second);
}

int KXcomponent::rec_message(int fd, KXmessage& msg, bool timeout, peer_info_t& peer) {
  if (fd < 0) {
    KX_LOG_ERROR("Socket is closed => unable to receive msg");
    return -1;
  }
  fd_set readable;
  FD_ZERO(&readable);
  if (fd < FD_SETSIZE) FD_SET(fd, &readable);
  struct timeval limit = {receive_limit_seconds, 0};

  int ready;
  while ((ready = wait_readable(fd, readable, timeout ? &limit : nullptr)) == -1) {
    KX_LOG_WARNING("select failed - %s", strerror(errno));
  }
  if (ready == 0) {
    KX_LOG_WARNING("Receive message timeout");
    return 0;
  }
  msg.size = 0;
  msg.pos = 0;
  peer.addrlen = sizeof peer.addr;
  const int header_offset = msg.offset - static_cast<int>(sizeof(msg_header_t));
  peer.rx_len = static_cast<int>(recvfrom(fd, msg.m_header,
                                          static_cast<std::size_t>(buffer_t::capacity - header_offset), 0,
                                          reinterpret_cast<sockaddr*>(&peer.addr), &peer.addrlen));
  msg.incr_size(peer.rx_len - static_cast<int>(sizeof(msg_header_t)));
  if (m_unread_own > 0 && fd == m_mgmt_fd && m_mgmt_socket_name == sender_path(peer).text) --m_unread_own;
  trace_received(peer, msg);
  return peer.rx_len;
}

bool KXcomponent::holds_header(int received, const char* operation) {
  if (received >= static_cast<int>(sizeof(msg_header_t))) return true;
  KX_LOG_WARNING_IN(operation, "dropped a datagram of %d bytes, shorter than a message header", received);
  return false;
}

// --- timers and descriptors ---

int KXcomponent::add_msec_timer(int to, void* context, handler_t handler, int cookie) {
  const auto timeout = static_cast<unsigned int>(to);
  const timer_entry_t timer = {handler, context, cookie, to, get_timeout(timeout)};
  KX_LOG_DEBUG3("add timer : to[%d], cookie[%d] ato[%d]", to, cookie, timer.ato);

  const mutex_lock lock(m_mutex);
  auto place = m_timers.begin();
  if (place != m_timers.end()) {
    const unsigned int now = get_currentTime();
    place = std::find_if(place, m_timers.end(), [timeout, now](const timer_entry_t& armed) {
      return timeout < static_cast<unsigned int>(remaining_time(now, armed.ato));
    });
  }
  m_timers.insert(place, timer);
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

int KXcomponent::del_timer(void* context, handler_t handler, int cookie) {
  KX_LOG_DEBUG2("del timer : cookie[%d]", cookie);
  const mutex_lock lock(m_mutex);
  const auto timer = find_timer(context, handler, cookie);
  if (timer != m_timers.end()) m_timers.erase(timer);
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
    if (m_nfds == max_descriptors) return -1;
    index = m_nfds;
    m_fda[index] = {fd, POLLIN | POLLERR | POLLHUP, 0};
    m_fd_handlers[index] = {handler, context};
    ++m_nfds;
  }
  KX_LOG_DEBUG1("add generic descriptor (m_fda[%d]=%d)\n", index, fd);
  return index;
}

void KXcomponent::remove_socket_descriptor(int fd) {
  KX_LOG_DEBUG1("remove generic descriptor [%d]\n", fd);
  const mutex_lock lock(m_mutex);
  const auto used = m_fda + m_nfds;
  const auto entry = std::find_if(m_fda, used, [fd](const struct pollfd& each) { return each.fd == fd; });
  if (entry == used) return;
  const auto index = entry - m_fda;
  std::copy(entry + 1, used, entry);
  std::copy(m_fd_handlers + index + 1, m_fd_handlers + m_nfds, m_fd_handlers + index);
  --m_nfds;
}

int KXcomponent::add_close_cb(int (*cb)()) {
  {
    const mutex_lock lock(m_mutex);
    m_close_cb = cb;
  }
  KX_LOG_INFO("add close callback\n");
  return 0;
}

// --- event loop ---

void KXcomponent::add_interface(KXinterface* iface) { m_interfaces.push_back(iface); }

void KXcomponent::wait(bool run) {
  const struct loop_end {  // also by an exception: signals must not be taken for a loop that is gone
    ~loop_end() {
      runs = false;
      thread = pthread_t{};
    }
    std::atomic<bool>& runs;
    std::atomic<pthread_t>& thread;
  } end{m_running, m_loop_thread};
  m_loop_thread = pthread_self();
  m_running = run;
  while (m_running) {
    log_signals();
    dispatch_waiting_queue();
    const bool stopped = m_data_fd < 0;  // by a handler; its descriptors may be somebody else's by now
    const int ready = poll_descriptors(stopped);
    log_signals();
    if (ready == 0 && !stopped) fire_earliest_timer();
    if (ready > 0) serve_descriptors(ready);
    if (stopped) m_running = false;
  }
  log_signals();
  KX_LOG_INFO("Exit polling loop\n");
  stop();
}

void KXcomponent::set_aside(const KXmessage& message) {
  const mutex_lock lock(m_mutex);
  m_waiting_queue.push_back(message);
}

void KXcomponent::dispatch_waiting_queue() {
  for (;;) {
    KXmessage message;
    {
      const mutex_lock lock(m_mutex);
      if (m_waiting_queue.empty()) {
        m_data_taken = false;
        return;
      }
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
    const mutex_lock lock(m_mutex);
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

// Polls until the earliest timer is due, or once. Polls a copy, since other threads may change the table
// meanwhile. The entries that are asked for are marked in their revents, which moves with them; one that is
// added has none.
int KXcomponent::poll_descriptors(bool once) {
  struct pollfd asked[max_descriptors];
  int count = 0;
  unsigned int deadline = 0;
  {
    const mutex_lock lock(m_mutex);
    if (!m_timers.empty()) deadline = m_timers.front().ato;
    for (; count < m_nfds; ++count) {
      asked[count] = {m_fda[count].fd, m_fda[count].events, 0};
      m_fda[count].revents = asked_for;
    }
  }
  const int timeout = once ? 0 : deadline == 0 ? -1 : remaining_time(get_currentTime(), deadline);
  int ready;
  do {
    ready = poll(asked, static_cast<nfds_t>(count), timeout);
  } while (ready == -1 && errno == EINTR);

  const mutex_lock lock(m_mutex);
  const struct pollfd* answer = asked;
  for (int i = 0; i < m_nfds; ++i) {
    if (m_fda[i].revents != asked_for) continue;
    while (answer->fd != m_fda[i].fd)
      ++answer;
    m_fda[i].revents = ready > 0 ? answer->revents : short{0};
    ++answer;
  }
  return ready;
}

void KXcomponent::fire_earliest_timer() {
  const mutex_lock lock(m_mutex);
  if (m_timers.empty()) {
    KX_LOG_WARNING_IN("wait", "got a time out while there is no timer\n");
    return;
  }
  const timer_entry_t fired = m_timers.front();
  const int result = fired.handler(fired.context, fired.cookie);
  retire_fired_timer(fired);
  if (result != -1) add_msec_timer(fired.to, fired.context, fired.handler, fired.cookie);
}

// Removes the timer whose handler has just run. It is still the head unless the handler removed it: a new
// timer is never placed before one that is due.
void KXcomponent::retire_fired_timer(const timer_entry_t& fired) {
  if (m_timers.empty()) {
    KX_LOG_ERROR_IN("wait", "Callback function removed itself from list of timers (list of timers is empty)");
  } else if (const timer_entry_t& head = m_timers.front();
             head.handler == fired.handler && head.context == fired.context && head.cookie == fired.cookie) {
    m_timers.pop_front();
    return;
  } else {
    KX_LOG_ERROR_IN("wait", "Callback function removed itself from list of timers");
  }
  kxlog::assert_failed("false", "components/kestrix/kxlib/KXcomponent", __LINE__,
                       "void KXcomponent::wait(bool)");
}

void KXcomponent::serve_descriptors(int ready) {
  struct pollfd entry = {};
  fd_handler_t handler = {};
  for (int i = 0; ready > 0 && ready_descriptor_from(i, entry, handler); ++i, --ready) {
    const int fd = entry.fd;
    const short events = entry.revents;
    if ((events & POLLNVAL) != 0) {
      KX_LOG_ERROR_IN("wait", "POLLNVAL [m_fda[i=%d].fd=%d] - %s", i, fd, strerror(errno));
      m_running = false;
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

// Moves `index` on to the first entry with events from there on, and copies that; whether there is one.
bool KXcomponent::ready_descriptor_from(int& index, struct pollfd& entry, fd_handler_t& handler) {
  const mutex_lock lock(m_mutex);
  while (index < m_nfds && m_fda[index].revents == 0)
    ++index;
  if (index >= m_nfds) return false;
  entry = m_fda[index];
  handler = m_fd_handlers[index];
  return true;
}

// Also in the last turn of a loop that has been told to end: it still serves its descriptors.
bool KXcomponent::loop_runs_elsewhere() const {
  const pthread_t loop = m_loop_thread;
  return loop != pthread_t{} && pthread_equal(loop, pthread_self()) == 0;
}

void KXcomponent::begin_synchronous_wait() {
  if (loop_runs_elsewhere()) m_data_taken = true;
}

// What was set aside may have been all that would have woken the loop: a management message without a command
// does.
void KXcomponent::end_synchronous_wait() {
  if (!loop_runs_elsewhere() || m_waiting_queue.empty() || m_unread_own > 0) return;
  KXmessage message = make_management_message(CMD_NONE, own_message_id);
  send_to_self(message);
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

void KXcomponent::stop() {
  if (m_data_fd < 0) {
    KX_LOG_DEBUG1("nothing to do");
    return;
  }
  KX_LOG_DEBUG1("unregister/unsubscribe services\n");
  if (int (*const callback)() = take_close_cb(); callback != nullptr) {
    callback();
    if (m_data_fd < 0) return;  // it called stop
  }
  m_connections.unique();
  for (KXconnection* connection : m_connections)
    connection->disconnect(false);
  KX_LOG_DEBUG1("unregister component\n");
  unregister_component();
  {
    const mutex_lock lock(m_mutex);
    release_socket(m_data_fd, m_data_socket_name);
    release_socket(m_mgmt_fd, m_mgmt_socket_name);
  }
  KX_LOG_DEBUG1("stop finished");
}

int (*KXcomponent::take_close_cb())() {
  const mutex_lock lock(m_mutex);
  return std::exchange(m_close_cb, nullptr);
}

int KXcomponent::sendKillMsgToSelf() {
  KXmessage message = make_management_message(CMD_KILL_COMPONENT, own_message_id);
  return send_to_self(message);
}

// Counted before it is sent: the loop may have read it before the send returns.
int KXcomponent::send_to_self(KXmessage& message) {
  ++m_unread_own;
  const int sent = send_message_to(m_mgmt_fd, m_mgmt_socket_name.c_str(), message);
  if (sent <= 0) --m_unread_own;
  return sent;
}

// Signals that come faster than the loop reads would fill the socket, and each would then wait for room that
// only the thread it interrupts can make.
void KXcomponent::tell_loop_to_end() {
  if (m_unread_own < max_unread_own) sendKillMsgToSelf();
}

void sig_handler(int sig, siginfo_t* info, void* /*ctx*/) {
  const int interrupted_errno = errno;
  KXcomponent* const component = KXcomponent::static_kxc;
  if (component == nullptr || !component->m_running) {
    KX_LOG_ERROR("Signal %s (%d) not handled: component already stopped", strsignal(sig), sig);
  } else {
    if (kxlog::enabled(kxlog::LEVEL_INFO)) take_signal_note(sig, info->si_pid, component->m_name);
    component->tell_loop_to_end();
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
