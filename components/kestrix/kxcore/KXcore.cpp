#include "KXcore.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "longer_queues.h"
#include "management.h"
#include "socket_address.h"

namespace {

// A turn ends after this many batches, so that a flood of data does not keep the loop from the rest.
constexpr int batches_per_turn = 16;

// What a component may have to say at its end: it gives back all that it holds, and unregisters.
constexpr unsigned int most_notices = peer::max_grants + 1;

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

// A descriptor handler of the component that calls one of its operations.
template <typename Core, void (Core::*operation)()>
int call(void* context, int /*fd*/) {
  (static_cast<Core*>(context)->*operation)();
  return 0;
}

// A socket at a path where nothing stands, ready to take the place of one of the core's.
unique_fd bind_fresh(const std::string& path) {
  unique_fd fresh(open_datagram());
  inbox::ask_for_credentials(fresh.get());
  const sockaddr_un address = socket_address(path);
  if (bind(fresh.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("cannot bind " + path + " again: " + strerror(errno));
  return fresh;
}

}  // namespace

KXcore::KXcore(bus_directory& place, reporter& report)
    : KXcomponent("kxcore", nullptr),
      m_place(place),
      m_mgmt_file(m_mgmt_socket_name),
      m_data_file(m_data_socket_name),
      m_report(report),
      m_signals(open_signals()),
      m_strangers(m_report, m_socket_dir),
      m_peers(m_report),
      m_registrar(m_peers, m_strangers, m_report, m_data_socket_name),
      m_router(m_peers, m_strangers, m_report),
      m_introspection(m_peers, m_strangers, m_report),
      m_shutdown(m_peers) {
  if (m_signals.get() < 0) throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
  inbox::ask_for_credentials(m_mgmt_fd);
  inbox::ask_for_credentials(m_data_fd);
  add_socket_descriptor(m_signals.get(), this, call<KXcore, &KXcore::take_signal>);
  add_socket_descriptor(m_peers.fd(), this, call<KXcore, &KXcore::serve_peers>);
  if (m_place.fd() >= 0) {
    add_socket_descriptor(m_place.fd(), this, call<KXcore, &KXcore::look_at_place>);
  } else {
    m_report.problem("it cannot watch %s: the end of its sockets' files would not be noticed",
                     m_socket_dir.c_str());
  }
  m_report.event("kxcore is ready");
}

// --- the order of a turn ---

void KXcore::get_mgmt_message(int /*fd*/) {
  if (m_held == 0) {
    m_held = m_mgmt_inbox.receive(m_mgmt_fd);
    m_mgmt_ahead -= std::min(m_mgmt_ahead, m_held);
    if (waits_for_data()) {
      m_data_ahead = socket_queue + 1;
    } else {
      serve_held();
    }
  }
  if (holds_something()) get_data_message(m_data_fd);
}

// Who is not registered has sent no data that could come before: a flood of theirs delays nobody.
bool KXcore::waits_for_data() {
  for (unsigned int i = 0; i < m_held; ++i)
    if (m_peers.at_mgmt(m_mgmt_inbox.sender_of(i).path) != nullptr) return true;
  return false;
}

void KXcore::get_data_message(int /*fd*/) {
  unsigned int received = inbox::batch_size;
  for (int batch = 0; batch < batches_per_turn && received == inbox::batch_size; ++batch) {
    received = m_data_inbox.receive(m_data_fd);
    for (unsigned int i = 0; i < received; ++i)
      with_memory([this, i] { serve_data(i); });
    settle();
    m_data_ahead -= std::min(m_data_ahead, received);
  }
  // A socket that is empty after a full batch would not bring the loop here again.
  const bool is_drained = received < inbox::batch_size || m_data_ahead == 0 || !is_readable(m_data_fd);
  if (!is_drained) return;
  serve_held();
  if (m_processes_ended && (m_mgmt_ahead == 0 || !is_readable(m_mgmt_fd))) end_processes();
}

void KXcore::serve_held() {
  for (unsigned int i = 0; i < m_held; ++i) {
    with_memory([this, i] { serve_management(i); });
    settle();
  }
  m_held = 0;
}

void KXcore::end_processes() {
  m_processes_ended = false;
  m_peers.end_processes();
  settle();
}

void KXcore::serve_management(unsigned int i) {
  const sender& from = m_mgmt_inbox.sender_of(i);
  m_report.monitors.arrived({from.sent_ns, record_is_management});
  const KXmessage& message = m_mgmt_inbox.message(i);
  if (m_mgmt_inbox.is_malformed(i)) return m_strangers.drop(m_peers.find_mgmt(from), from, "it is malformed");
  const bool is_own = from.path == m_mgmt_socket_name && from.pid == getpid();
  if (is_own && message.m_header->cmd == CMD_KILL_COMPONENT) return begin_shutdown();
  m_registrar.serve(from, message);
}

void KXcore::serve_data(unsigned int i) {
  const sender& from = m_data_inbox.sender_of(i);
  m_report.monitors.arrived({from.sent_ns, 0});
  if (m_data_inbox.is_malformed(i)) return m_strangers.drop(m_peers.find_data(from), from, "it is malformed");
  m_router.serve(from, m_data_inbox.message(i));
}

// What cannot be served for want of memory is lost; the core goes on.
template <typename Function>
void KXcore::with_memory(Function serve) {
  try {
    serve();
  } catch (const std::bad_alloc&) {
    if (reporter::is_reported(++m_without_memory))
      m_report.problem("no memory: a message is lost (%lu so far)", m_without_memory);
  }
}

// After whatever may have been the end of a component.
void KXcore::settle() {
  m_shutdown.went(m_peers.forget_gone());
  with_memory([this] { m_introspection.tell_events(); });
  if (m_shutdown.has_begun() && m_peers.size() == 0) m_running = false;
}

void KXcore::serve_peers() {
  if (m_peers.serve(holds_something())) {
    m_processes_ended = true;
    m_data_ahead = socket_queue + 1;
    m_mgmt_ahead = most_notices;
  }
  settle();
  if (m_processes_ended) get_data_message(m_data_fd);
}

// --- monitors ---

void KXcore::admit_monitors(gid_t group) {
  m_monitor_group = group;
  const std::string refusal = m_report.monitors.open(m_socket_dir + ".kxcore", group);
  if (refusal.empty()) {
    add_socket_descriptor(m_report.monitors.fd(), this, call<KXcore, &KXcore::serve_monitors>);
  } else {
    m_report.problem("there can be no monitors: %s", refusal.c_str());
  }
}

void KXcore::serve_monitors() {
  m_report.monitors.serve([this](const traffic::show_t& show) { m_introspection.show_state(show); });
  const bool is_watched = m_report.monitors.is_watched();
  m_mgmt_inbox.ask_for_times(m_mgmt_fd, is_watched);
  m_data_inbox.ask_for_times(m_data_fd, is_watched);
  m_introspection.tell_events();
}

// --- the end ---

void KXcore::take_signal() {
  signalfd_siginfo taken = {};
  if (read(m_signals.get(), &taken, sizeof taken) != sizeof taken) return;
  try {
    begin_shutdown();
  } catch (const std::bad_alloc&) {  // then not in order
    m_running = false;
  }
}

// Tells every component to end, and ends when they have unregistered, which without a core would cost each of
// them seconds of vain attempts. Told to end a second time, the core ends at once.
void KXcore::begin_shutdown() {
  if (m_shutdown.has_begun() || m_peers.size() == 0) {
    m_running = false;
    return;
  }
  m_report.event("stopping: %zu components are told to end", m_peers.size());
  m_registrar.close();
  m_shutdown.step();
  add_msec_timer(bus_shutdown::interval_ms, this, continue_shutdown, 0);
}

int KXcore::continue_shutdown(void* context, int /*cookie*/) {
  auto& core = *static_cast<KXcore*>(context);
  const bool is_last = !core.m_shutdown.step();
  core.settle();
  if (!is_last) return 0;
  core.m_running = false;
  return -1;
}

void KXcore::unregister_component() {
  if (m_mgmt_file.state() != own_file::OWN) m_mgmt_socket_name.clear();
  if (m_data_file.state() != own_file::OWN) m_data_socket_name.clear();
}

// --- the core's place on the bus ---

void KXcore::look_at_place() {
  if (!m_place.has_changed()) return;
  if (m_mgmt_file.state() == own_file::OWN && m_data_file.state() == own_file::OWN) return;
  reclaim_place();
}

// Senders look the path up for each message: those that find the core's sockets there again notice nothing.
void KXcore::reclaim_place() {
  drain();
  try {
    m_place.enter();
    const longer_queues queues;
    reclaim(m_mgmt_fd, m_mgmt_file);
    reclaim(m_data_fd, m_data_file);
    if (m_report.monitors.fd() >= 0) m_report.monitors.open(m_socket_dir + ".kxcore", m_monitor_group);
    m_report.problem("the files of its sockets in %s were removed: it has made them again",
                     m_socket_dir.c_str());
  } catch (const std::runtime_error& error) {
    m_report.problem("the files of its sockets are gone, it ends: %s", error.what());
    m_failed = true;
    m_running = false;
  }
}

// Serves what came before; nothing comes to sockets without files, except from who has connected to them.
void KXcore::drain() {
  constexpr int full_queue = socket_queue / static_cast<int>(inbox::batch_size) + 1;  // of management
  for (int turns = full_queue; turns > 0 && (is_readable(m_mgmt_fd) || is_readable(m_data_fd)); --turns) {
    get_mgmt_message(m_mgmt_fd);
    get_data_message(m_data_fd);
  }
}

void KXcore::reclaim(int fd, own_file& file) {
  if (file.state() == own_file::OWN) return;
  if (file.state() == own_file::FOREIGN)
    throw std::runtime_error(
        file.path() + " is not the core's own any more: remove it, and let no component be named kxcore");
  const unique_fd fresh = bind_fresh(file.path());
  if (dup3(fresh.get(), fd, O_CLOEXEC) < 0)
    throw std::system_error(errno, std::generic_category(), "cannot replace a socket");
  file.remember();
}
