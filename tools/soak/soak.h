// The order of a soak: what is started when, what happens during the requests, and what is measured.
#ifndef SOAK_H
#define SOAK_H

#include <memory>
#include <vector>

#include "child_process.h"
#include "parts.h"
#include "report.h"
#include "settings.h"

class soak {
 public:
  // Starts all components of a soak over the running core, and waits until the queues are full of those that
  // do not read. The board is to be set up before.
  explicit soak(const settings& with);

  // Ends them.
  ~soak();
  soak(const soak&) = delete;
  soak& operator=(const soak&) = delete;

  // Exchanges the requests, kills components meanwhile, and reports; whether everything held.
  bool run(child_process& core);

 private:
  using processes = std::vector<std::unique_ptr<child_process>>;

  void start_servers(int servers);
  void stop_some();
  void start_callers(int servers, int callers);
  void start_floods();
  void start_mortals();
  bool all_work() const;
  bool replace_one();
  void weigh(std::vector<watched_process>& watched) const;

  const settings m_settings;
  random_source m_random;
  processes m_stopped, m_working, m_flooding, m_mortal;
  std::unique_ptr<child_process> m_filler;
};

#endif
