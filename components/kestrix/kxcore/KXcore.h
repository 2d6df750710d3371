// The core of the bus: a component named kxcore that answers the management requests of the others and
// forwards their data messages.
//
// It never waits for anybody. At each turn it takes from its sockets what is there, up to a limit. A
// management message of a component is held until the data is served that came before, and the end of a
// process until both are: what a component sends before it withdraws still counts as its own.
#ifndef KXCORE_H
#define KXCORE_H

#include <string>

#include "KXcomponent.h"
#include "bus_directory.h"
#include "inbox.h"
#include "introspection.h"
#include "registrar.h"
#include "reporter.h"
#include "roster.h"
#include "router.h"
#include "shutdown.h"
#include "strangers.h"

class KXcore : public KXcomponent {
 public:
  // `place` is to be the bus directory, checked. SIGTERM, SIGINT and SIGQUIT are to be
  // blocked before: the core reads them from a descriptor and stops in order. Throws
  // KXerror::ERR_SOCKET_BIND, or std::runtime_error.
  KXcore(bus_directory& place, reporter& report);
  ~KXcore() override { m_report.monitors.close(); }

  // Lets monitors in, those of `group` too unless it is -1.
  void admit_monitors(gid_t group);

  void get_mgmt_message(int fd) override;
  void get_data_message(int fd) override;

  // Leaves files alone that stand in the place of its sockets'.
  void unregister_component() override;

  // Whether it has lost its place on the bus.
  bool has_failed() const { return m_failed; }

 private:
  // Takes the component off the bus however it ends, its construction included.
  struct departure {
    KXcore& core;
    ~departure() { core.stop(); }
  };

  bool holds_something() const { return m_held > 0 || m_processes_ended; }
  bool waits_for_data();
  void serve_held();
  void serve_management(unsigned int i);
  void serve_data(unsigned int i);
  template <typename Function>
  void with_memory(Function serve);
  void end_processes();
  void settle();

  void serve_peers();
  void take_signal();
  void begin_shutdown();
  static int continue_shutdown(void* context, int cookie);

  void serve_monitors();

  void look_at_place();
  void reclaim_place();
  void drain();
  static void reclaim(int fd, own_file& file);

  bus_directory& m_place;
  own_file m_mgmt_file;
  own_file m_data_file;
  departure m_departure{*this};
  reporter& m_report;
  unique_fd m_signals;
  strangers m_strangers;
  roster m_peers;
  registrar m_registrar;
  router m_router;
  introspection m_introspection;
  bus_shutdown m_shutdown;
  inbox m_mgmt_inbox;
  inbox m_data_inbox;
  unsigned int m_held = 0;         // messages in the management inbox that wait for the data before them
  bool m_processes_ended = false;  // and so do the ends of processes
  unsigned int m_data_ahead = 0;   // datagrams that may have come before what is held
  unsigned int m_mgmt_ahead = 0;   // and management messages before the ends of processes
  unsigned long m_without_memory = 0;
  gid_t m_monitor_group = static_cast<gid_t>(-1);
  bool m_failed = false;
};

#endif
