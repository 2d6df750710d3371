/// @file
/// A bus in the test's own process, for the tests of applications: no kxcore, no sockets, no waiting.
///
///     kx::testing::bus bus;
///     kx::testing::app server(bus, "thermostat");
///     kx::testing::app tester(bus, "tester");
///     thermostat tested(server);
///     kx::client client(tester, "thermostat");
///     server.start();
///     tester.start();
///     EXPECT_EQ(20, *client.call<int>(GET));
///
/// All applications share the test's thread. Messages arrive in the order in which they were sent; time
/// passes only when the test, or a synchronous call without an answer, lets it.
#ifndef KX_TESTING_H
#define KX_TESTING_H

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kx/port.h"
#include "kx/testing/core.h"

namespace kx::testing {

class app;

/// The bus and its clock. It must outlive its applications.
class bus {
 public:
  bus() = default;
  bus(const bus&) = delete;
  bus& operator=(const bus&) = delete;

  /// Has everything happen that does not wait for time: messages arrive, with all that follows from them.
  void settle() {
    while (step()) {
    }
  }

  /// Lets time pass, with everything that happens in it.
  void advance(std::chrono::milliseconds by) { pass_until(m_now + by.count()); }

  /// Faults, each until it is taken back. A service is named that is offered, or will be.
  /// @{

  /// The service gets requests and does not answer; or does again.
  void silence(const std::string& service, bool is_silent = true) { m_faults[service].is_silent = is_silent; }
  /// Answers and signals of the service arrive so much later; 0 as usual.
  void delay(const std::string& service, std::chrono::milliseconds by) {
    m_faults[service].delay = by.count();
  }
  /// The next `count` signals of the service are lost, for each who listens.
  void lose_signals(const std::string& service, int count = 1) { m_faults[service].lost = count; }
  /// The component that offers the service does not read: the core answers requests in its place.
  void fill_queue(const std::string& service, bool is_full = true) { m_core.set_full(service, is_full); }
  /// The core is killed and started again: it knows nobody, and nobody is told.
  void restart_core() { m_core.restart(); }
  /// The core is one that does not tell events; before the applications start.
  void without_events() { m_core.tell_events(false); }
  /// @}

 private:
  friend class app;
  friend class end;
  friend class proxy_end;

  struct letter {
    app* to;
    KXmessage message;
    std::int64_t due;
  };

  struct timer {
    app* of;
    int ms;
    void* context;
    port::handler_t handler;
    int number;
    std::int64_t due;
  };

  struct fault {
    bool is_silent = false;
    std::int64_t delay = 0;
    int lost = 0;
  };

  static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

  inline void deliver(member& to, const KXmessage& message, const std::string& service);
  inline bool step();
  inline bool deliver_next();
  inline bool fire_next();
  inline bool take_answer(const app& to, std::uint32_t msg_id, KXmessage& answer);
  inline std::int64_t next_event() const;
  inline void forget(const app& gone);

  void pass_until(std::int64_t end) {
    for (;;) {
      settle();
      const std::int64_t next = std::min(next_event(), end);
      m_now = std::max(m_now, next);
      if (next == end) return settle();
    }
  }

  core m_core{[this](member& to, const KXmessage& message, const std::string& service) {
    deliver(to, message, service);
  }};
  std::int64_t m_now = 0;
  std::list<letter> m_letters;
  std::list<timer> m_timers;
  std::map<std::string, fault> m_faults;
};

/// An application's place on a bus of the test's. See kx::port; descriptors are kept, and served when the
/// test says so.
class app final : public port, private member {
 public:
  /// A component of this name. It is on the bus from start, or run, on.
  app(bus& on, std::string name) : m_bus(on), m_name(std::move(name)) {}

  /// As a component that ends in order.
  ~app() override {
    stop();
    dismiss();
    m_bus.forget(*this);
  }

  /// Joins the bus and runs the hooks up and ready, as kx::app::run does before its loop; the test is the
  /// loop. @return success, or why the application would not start
  result<> start() {
    m_bus.m_core.enter(*this);
    m_runs = true;
    go_up();
    result<> offered = offer_all();
    if (!offered) {
      stop();
      return offered;
    }
    use_all();
    if (m_quits) stop();
    return {};
  }

  /// What happens while the application runs that has called run on its port: the rest of the test. It leaves
  /// the bus afterwards.
  void while_running(std::function<void()> rest) { m_rest = std::move(rest); }
  int run() override {
    if (!start()) return 1;
    if (m_rest) m_rest();
    stop();
    return m_status;
  }

  /// Leaves the bus, as one that was told to end: the hook closing runs. A second time, nothing.
  void stop() {
    if (!m_runs) return;
    close();
    leave();
  }

  /// Ends as a process that is killed.
  void crash() {
    if (std::exchange(m_runs, false)) m_bus.m_core.leave(*this, "its process ended");
  }

  /// Whether it is on the bus; when it has left, the status that it gave to quit, else 0.
  /// @{
  bool runs() const { return m_runs; }
  int status() const { return m_status; }
  /// @}

  /// Has the handler of a watched descriptor run, as if that were readable; nothing if it is not watched.
  void serve(int fd) {
    const auto entry = m_descriptors.find(fd);
    if (entry == m_descriptors.end()) return;
    const auto [context, handler] = entry->second;
    if (handler(context, fd) == -1) unwatch(fd);
  }

  const std::string& name() const override { return m_name; }
  inline void quit(int status = 0) override;
  inline result<std::unique_ptr<link>> offer(const std::string& service, kind of, const std::string& xml,
                                             receiver& to) override;
  inline result<std::unique_ptr<link>> use(const std::string& service, kind of, receiver& to) override;
  inline void add_timer(int ms, void* context, handler_t handler, int number) override;
  inline void del_timer(void* context, handler_t handler, int number) override;
  bool watch(int fd, void* context, handler_t handler) override {
    return fd >= 0 && m_descriptors.emplace(fd, std::pair(context, handler)).second;
  }
  void unwatch(int fd) override { m_descriptors.erase(fd); }
  std::int64_t now() const override { return m_bus.m_now; }

 private:
  friend class bus;
  friend class end;
  friend class proxy_end;

  const std::string& member_name() const override { return m_name; }

  void leave() {
    m_runs = false;
    m_bus.m_core.leave(*this);
  }

  // To all that have the siid, each once; they may go meanwhile.
  void take(KXmessage& message) {
    const auto [first, last] = m_receivers.equal_range(ntohl(message.m_header->dst_siid));
    std::vector<std::pair<std::uint32_t, receiver*>> receivers(first, last);
    for (const auto& each : receivers)
      if (is_held(each)) each.second->receive(message);
    if (m_quits) stop();
  }

  bool is_held(const std::pair<const std::uint32_t, receiver*>& wanted) const {
    const auto [first, last] = m_receivers.equal_range(wanted.first);
    return std::find(first, last, wanted) != last;
  }

  bus& m_bus;
  const std::string m_name;
  std::multimap<std::uint32_t, receiver*> m_receivers;
  std::map<int, std::pair<void*, handler_t>> m_descriptors;
  bool m_runs = false;
  bool m_is_blocked = false;  // in a synchronous call
  bool m_quits = false;
  int m_status = 0;
  std::function<void()> m_rest;
};

}  // namespace kx::testing

#include "kx/testing/ends.h"

#endif
