/// @file
/// The component, and the clock of its timers.
#ifndef KXCOMPONENT_H
#define KXCOMPONENT_H

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "KXerror.h"
#include "KXexport.h"
#include "KXmessage.h"
#include "peer_info.h"

class KXconnection;
class KXinterface;

/// One armed timer. Its identity is (context, handler, cookie).
struct timer_entry_t {
  int (*handler)(void* context, int cookie);  ///< called when the deadline has passed
  void* context;                              ///< the caller's, never looked at
  int cookie;                                 ///< the caller's number
  int to;            ///< timeout in ms as the caller gave it; also the period of a repeating timer
  unsigned int ato;  ///< deadline stamp
};

/// The handler of the descriptor at the same index of the poll set.
struct fd_handler_t {
  int (*handler)(void* context, int fd);  ///< called when the descriptor is readable
  void* context;                          ///< the caller's, never looked at
};

/// Milliseconds of the monotonic clock within the current hour: 0 .. 3,599,999; 0 with an ERROR line when the
/// clock cannot be read. Stamps wrap every hour. Any thread.
KX_EXPORT unsigned int get_currentTime();

/// The deadline stamp (1 .. 3,600,000) of a timeout of `to` milliseconds from now. Above 900,000 ms, and for
/// a negative value converted to unsigned, the deadline is 900,000 ms ahead.
KX_EXPORT unsigned int get_timeout(unsigned int to);

/// Milliseconds from the stamp `now` to the deadline stamp `ato`, 0 when it has passed. A deadline more than
/// 900,099 ms away lies on the other side of the hour's wrap.
KX_EXPORT int remaining_time(unsigned int now, unsigned int ato);

/// The handler of the termination signals: has the component of KXcomponent::static_kxc send itself
/// KILL-COMPONENT, so that its event loop ends and stops it, unless 64 such messages are not served yet; when
/// there is none or it does not run, writes one ERROR line and lets the process go on. The INFO line that
/// names the sender is written by the event loop, or here when none runs or 64 lines wait. `errno` survives.
KX_EXPORT void sig_handler(int sig, siginfo_t* info, void* ctx);

/// A process's place on the bus: its two datagram sockets, its event loop, its timers and descriptors, and
/// the table of the connections that its service-instance ids (siids) belong to.
///
/// The order of use is: construct, add interfaces, start (which returns when the component has stopped),
/// destroy. Applications construct a KXclientComponent. The component refers to connections and interfaces,
/// it never owns them. The library starts no thread: every handler runs on the thread that called start.
/// Unless said otherwise an operation belongs to that thread, and may be called from inside handlers.
/// Handlers may throw; the exception leaves start, with every lock released and without stop.
class KX_EXPORT KXcomponent {
 public:
  /// Settings of the second constructor, read only while it runs.
  struct ExtraCfg {
    const char* subdir;   ///< not null: sockets go to "/tmp/kxcore/<subdir>/", which is created (one level)
    bool handle_signals;  ///< install the handler of SIGINT, SIGQUIT, SIGTERM and SIGPIPE
  };

  /// What start does after the start-up phases; any other value acts as CMP_START_AND_STOP.
  enum cmp_start_e : int {
    CMP_START_AND_LOOP = 0,  ///< run the event loop until the component is told to end
    CMP_START_AND_STOP = 1   ///< stop at once
  };

  /// Called with the context of its registration and the timer's cookie, or the ready descriptor. Returning
  /// -1 ends the timer or removes the descriptor, any other value keeps it.
  using handler_t = int (*)(void* context, int value);

  using timer_entry_t = ::timer_entry_t;  ///< the same under the class's name
  using fd_handler_t = ::fd_handler_t;    ///< the same under the class's name

  static constexpr int max_descriptors = 64;  ///< in the poll set, the two sockets included

  /// Binds the sockets "/tmp/kxcore/<name>" (management) and "/tmp/kxcore/<name>-d" (data), removing files
  /// that stand there, and installs the signal handler.
  /// @param name not null; not copied, must stay valid as long as the component
  /// @throws KXerror::ERR_SOCKET_BIND when a socket cannot be bound or its path is longer than 107 bytes;
  ///         then no descriptor and no socket file is left
  explicit KXcomponent(const char* name);

  /// As above with the settings of `cfg`; null means no sub-directory and no signal handler.
  KXcomponent(const char* name, const ExtraCfg* cfg);

  KXcomponent(const KXcomponent&) = delete;
  KXcomponent& operator=(const KXcomponent&) = delete;

  /// Leaves sockets and their files as they are; closing them is the work of stop.
  virtual ~KXcomponent();

  /// One management exchange with kxcore on behalf of `conn`. The base sends nothing and returns false.
  virtual bool interconnect_service(KXconnection* conn, KXmessage& msg);

  /// Announces the component to the bus, and withdraws it; called by start and stop. The base does nothing.
  /// @{
  virtual void register_component();
  virtual void unregister_component();
  /// @}

  /// Receives and handles one datagram; called by the event loop when the socket is readable.
  /// @{
  virtual void get_data_message(int fd) = 0;
  virtual void get_mgmt_message(int fd) = 0;
  /// @}

  /// Sends to the core's management or data socket. Returns the bytes sent or -1; the base sends nothing and
  /// returns 0.
  /// @{
  virtual int send_mgmt_message(KXmessage& msg);
  virtual int send_data_message(KXmessage& msg);
  /// @}

  /// Directory and name of the sockets; the management socket's path.
  std::string get_socket_base_name();

  /// Creates a non-blocking datagram socket and binds it at `path`, removing what stands there.
  /// @return its descriptor, owned by the caller
  /// @throws KXerror::ERR_SOCKET_BIND as the constructors do
  int create_socket(std::string& path);

  /// Sends one message from `fd`, a socket of this component, to the socket at `path`. A send that fails, for
  /// whatever reason, is tried three times in all, with a second's pause between: the call blocks for about
  /// two seconds at most. `msg` is not changed. Any thread, and signal handlers as far as syslog is safe
  /// there (see KXlog.h).
  /// @return bytes sent (header and payload), or -1
  int send_message_to(int fd, const char* path, KXmessage& msg);

  /// Waits until `fd` is readable, for 10 seconds at most when `timeout` is true, and receives one datagram.
  /// @return bytes received (header included); 0 for the elapsed time, which leaves `msg` and `peer`
  ///         unchanged, and for an empty datagram; -1 when the read failed, `fd` is negative, or stop has
  ///         closed it meanwhile
  int rec_message(int fd, KXmessage& msg, bool timeout, peer_info_t& peer);

  /// Arms a timer that calls `handler(context, cookie)` on the event loop's thread `to` milliseconds from
  /// now, and again after each further `to` milliseconds unless the handler returns -1. Timeouts are at most
  /// 900,000 ms; a longer or negative one counts as that. The same timer may be armed more than once. Any
  /// thread; from another one than the event loop's it does not wake the loop. A handler ends its own timer
  /// by returning -1, not with del_timer, and runs with m_mutex held: other threads' calls that need it wait.
  /// `context` stays the caller's. Returns 0.
  int add_msec_timer(int to, void* context, handler_t handler, int cookie);

  /// add_msec_timer(seconds * 1000, ...), in 32-bit arithmetic that wraps.
  int add_timer(int seconds, void* context, handler_t handler, int cookie);

  /// Removes the earliest timer with this context, handler and cookie, if there is one. Any thread. Returns
  /// 0.
  int del_timer(void* context, handler_t handler, int cookie);

  /// 1 when a timer with this context, handler and cookie is armed, else 0. Any thread.
  int has_timer(void* context, handler_t handler, int cookie);

  /// Has the event loop call `handler(context, fd)` whenever `fd` is readable. The descriptor stays the
  /// caller's. A descriptor with POLLERR or POLLHUP is not served any more and should be removed; a closed
  /// one must be removed before it is closed, for an invalid descriptor ends the event loop. Any thread; from
  /// another one than the event loop's it does not wake the loop, and while that polls, the turn serves no
  /// descriptor.
  /// @return the descriptor's index, or -1 when `fd` is negative or 64 descriptors are registered
  int add_socket_descriptor(int fd, void* context, handler_t handler);

  /// Removes the first entry of `fd`, if there is one; does not close it. Any thread, as above.
  void remove_socket_descriptor(int fd);

  /// Sets the callback that stop runs first, in place of an earlier one. Any thread. Returns 0.
  int add_close_cb(int (*cb)());

  /// Has start drive `iface` through the start-up phases; not owned. Before start.
  void add_interface(KXinterface* iface);

  /// Registers the component, runs the start-up phases and then the event loop; returns when the component
  /// has stopped. Once: a stopped component does not start again. Passes on what register_component, the
  /// phases and handlers throw; then the component is still on the bus until stop is called.
  void start(cmp_start_e mode);

  /// Takes the component off the bus: close callback, connections, registration, sockets and their files.
  /// Called by the event loop when it ends; called from a handler it also ends the loop. A second call does
  /// nothing, nor does one from the close callback. It takes no lock: a wait for a datagram that another
  /// thread still has ends with -1. Each notice to a kxcore that does not answer may take two seconds.
  void stop();

  /// The event loop; sets m_running to `run` first, and calls stop when it ends. Called by start, and not
  /// from handlers. An exception of a handler leaves it without stop, and with m_running as it is.
  void wait(bool run);

  /// Sends KILL-COMPONENT from the management socket to itself, which ends the event loop. Any thread and,
  /// like send_message_to, signal handlers. Returns the bytes sent or -1.
  int sendKillMsgToSelf();

  /// Binds `conn` to `siid` (0xFFFFFFFF: lists it without a siid) so that messages for the siid reach it.
  /// @throws KXerror::ERR_SIID_PRESENT, with nothing changed, when the siid is taken and `conn` is not a
  ///         signal connection
  void bind_siid(unsigned int siid, KXconnection* conn);

  /// Forgets one binding of `conn`; nothing for null. Safe while its own message is being handled.
  void remove_connection(KXconnection* conn);

  /// The descriptor handlers of the two sockets; `context` is the component. Return 0.
  /// @{
  static int static_get_data_message(void* context, int fd);
  static int static_get_mgmt_message(void* context, int fd);
  /// @}

  /// The component that termination signals end: the one constructed last, null after any was destroyed.
  static KXcomponent* static_kxc;

 protected:
  friend class KXconnection;
  friend class KXproxy;
  friend class KXstub;
  friend class synchronous_wait;
  friend void sig_handler(int sig, siginfo_t* info, void* ctx);

  /// Hands `message` to every connection bound to its dst_siid, each once, in the order of their addresses.
  /// Handlers may bind, unbind and destroy any connection.
  void deliver(KXmessage& message);

  /// Appends a copy of `message` to the waiting queue.
  void set_aside(const KXmessage& message);

  /// Sleeps for a second, also when signals interrupt the sleep.
  static void pause_one_second();

  /// Why the core refused what was asked of it last, in its own words ("nobody offers 'clock'"); empty when
  /// it did not, or gave no reason. The next management exchange replaces it.
  const std::string& last_refusal() const;

  /// Keeps the reason that the core's answer to a request gives; null forgets that of an earlier one.
  void keep_refusal(const KXmessage* answer);

  /// Whether a received datagram holds at least a header; if not, writes a WARNING line for `operation`.
  static bool holds_header(int received, const char* operation);

  /// State for derived components. m_mutex, which is recursive, guards changes of the poll set, the timers
  /// and the close callback, and receiving from the data socket. m_running is written and read with the
  /// compiler's atomic built-ins, by any thread, which does not wake the loop. The waiting queue is extended
  /// with set_aside by any thread. The rest belongs to the event loop's thread.
  /// @{
  std::string m_socket_dir;
  struct pollfd m_fda[max_descriptors];
  fd_handler_t m_fd_handlers[max_descriptors];
  int m_nfds;
  std::list<timer_entry_t> m_timers;
  std::list<KXinterface*> m_interfaces;
  pthread_mutex_t m_mutex;
  int (*m_close_cb)();
  std::deque<KXmessage> m_waiting_queue;
  std::map<unsigned int, std::set<KXconnection*>*> m_siid_map;
  std::list<KXconnection*> m_connections;
  const char* m_name;
  std::string m_data_socket_name;
  std::string m_mgmt_socket_name;
  bool m_running;
  int m_data_fd;
  int m_mgmt_fd;
  /// @}

  /// Whether a synchronous wait on another thread has begun since the event loop looked last, or has left
  /// something in the waiting queue: what the data socket holds now is newer. Guarded by m_mutex.
  bool m_data_taken = false;

  struct shared_state;
  const std::unique_ptr<shared_state> m_shared;  ///< what the library's threads share besides
  std::atomic<int> m_unserved_kills{0};          ///< sent to itself since the loop looked for them

 private:
  class loop_scope;
  class stop_scope;

  void construct(const char* subdir, bool handle_signals);
  bool owns(int fd) const;
  int await_datagram(int fd, bool timeout) const;
  std::list<timer_entry_t>::iterator find_timer(void* context, handler_t handler, int cookie);
  void erase_timer(std::list<timer_entry_t>::iterator timer);
  bool has_timers() const;

  void dispatch_waiting_queue();
  bool has_waiting_messages() const;
  int poll_timeout();
  int poll_descriptors(int timeout);
  void fire_earliest_timer();
  void fire(timer_entry_t timer);
  void retire(const timer_entry_t& fired);
  void serve_descriptors();
  bool is_invalid() const;
  bool ready_from(int& index, struct pollfd& entry, fd_handler_t& handler) const;

  bool loop_runs() const;
  bool loop_runs_elsewhere() const;
  void wake_loop();
  void note_signal(int sig, pid_t sender);
  void write_signal_lines();
};

#endif
