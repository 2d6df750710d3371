// The services of the core itself, by which it tells about the bus: kxcore.directory, kxcore.stats, and the
// signal kxcore.events; and what is kept free for them. To the other rooms they are services as any.
#ifndef INTROSPECTION_H
#define INTROSPECTION_H

#include <string>

#include "bus_pages.h"
#include "reporter.h"
#include "roster.h"
#include "strangers.h"

class introspection : public service_handler {
 public:
  introspection(roster& peers, strangers& outsiders, reporter& report);

  // Whether a service may only be offered by the core.
  static bool reserves(const std::string& service) { return service.rfind("kxcore.", 0) == 0; }

  // Answers a request to one of them.
  void serve(peer& from, const service& asked, const KXmessage& request) override;

  // Tells subscribers and monitors what has happened since the last call.
  void tell_events();

  // Shows a monitor who is there, and who offers what.
  void show_state(const traffic::show_t& show) const;

 private:
  std::string answer(const service& asked, const KXmessage& request, KXmessage& reply);
  std::string answer_directory(const KXmessage& request, KXmessage& reply);
  std::string answer_stats(const KXmessage& request, KXmessage& reply);
  std::string describe(const std::string& name, KXmessage& reply);
  void tell(const bus_event& event);

  roster& m_peers;
  strangers& m_strangers;
  reporter& m_report;
  const bus_pages m_pages;
  const std::shared_ptr<service> m_directory;
  const std::shared_ptr<service> m_stats;
  const std::shared_ptr<service> m_events;
};

#endif
