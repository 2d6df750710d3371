/// @file
/// An application on the bus.
#ifndef KX_APP_H
#define KX_APP_H

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "KXinterface.h"
#include "kx/detail/component.h"
#include "kx/port.h"

namespace kx {

/// A component with its event loop:
///
///     int main() {
///       kx::app app("thermostat");
///       thermostat made(app);  // kx::service, kx::client, kx::timer ...
///       return app.run();
///     }
///
/// SIGINT, SIGQUIT, SIGTERM and SIGPIPE end it in order. It is a KXclientComponent, with all that
/// the page about threads says of one; all of this layer belongs to the thread that calls run.
class app final : public port, private KXinterface {
 public:
  /// Takes the component's place, "/tmp/kxcore/<name>" and "/tmp/kxcore/<name>-d", or one in a sub-directory,
  /// with or without the library's signal handler; but not that of a component which lives. What is in the
  /// way is reported by run.
  explicit app(std::string name, const KXcomponent::ExtraCfg& settings = {nullptr, true})
      : m_name(std::move(name)) {
    const std::string place =
        "/tmp/kxcore/" + (settings.subdir == nullptr ? "" : std::string(settings.subdir) + "/") + m_name;
    if (detail::is_taken(place)) {
      m_bind_failure = "the name is taken, another process serves " + place;
      return;
    }
    try {
      m_component = std::make_unique<detail::component>(m_name.c_str(), settings);
      m_component->add_interface(this);
      m_end.emplace(*this);
    } catch (const KXerror::error_e&) {
      m_bind_failure = std::string("cannot bind its sockets below /tmp/kxcore: ") + std::strerror(errno);
    }
  }

  ~app() override {
    dismiss();
    if (m_component != nullptr) m_component->stop();
  }

  /// Whether run waits for a core that is not there; it does unless this says otherwise.
  void wait_for_core(bool waits) { m_waits = waits; }

  /// Joins the bus, runs the hooks and the loop, and returns when the application has left: the status of
  /// quit, 0 after a signal. When it cannot start it writes one line on standard error and returns 1: its
  /// name is taken, or a socket cannot be bound; there is no core, and it is not to be waited for (else the
  /// line says that it waits, and signals do not end it meanwhile); the core does not answer; it refuses the
  /// component, or one of its services, in its own words. Once. Passes on what handlers throw; the
  /// application is then on the bus until it is destroyed.
  int run() override {
    if (m_component == nullptr) return fail(m_bind_failure);
    try {
      look_for_core();
      m_component->start(KXcomponent::CMP_START_AND_LOOP);
      return m_status;
    } catch (const detail::start_failure& failure) {
      return fail(failure.reason);
    } catch (const KXerror::error_e&) {
      return fail(m_component->refusal());
    }
  }

  const std::string& name() const override { return m_name; }

  void quit(int status = 0) override {
    m_status = status;
    if (m_component != nullptr) m_component->end_loop();
  }

  result<std::unique_ptr<link>> offer(const std::string& service, kind of, const std::string& xml,
                                      receiver& to) override {
    auto made = std::make_unique<detail::stub_link>(*m_component, xml, to);
    const result<> joined = made->join(service, of);
    if (!joined) return joined.error();
    return std::unique_ptr<link>(std::move(made));
  }
  result<std::unique_ptr<link>> use(const std::string& service, kind of, receiver& to) override {
    auto made = std::make_unique<detail::proxy_link>(*m_component, of, to);
    const result<> joined = made->join(service);
    if (!joined) return joined.error();
    return std::unique_ptr<link>(std::move(made));
  }

  void add_timer(int ms, void* context, handler_t handler, int number) override {
    if (m_component != nullptr) m_component->add_msec_timer(ms, context, handler, number);
  }
  void del_timer(void* context, handler_t handler, int number) override {
    if (m_component != nullptr) m_component->del_timer(context, handler, number);
  }
  bool watch(int fd, void* context, handler_t handler) override {
    return m_component != nullptr && m_component->add_socket_descriptor(fd, context, handler) >= 0;
  }
  void unwatch(int fd) override {
    if (m_component != nullptr) m_component->remove_socket_descriptor(fd);
  }
  std::int64_t now() const override {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
  }

 private:
  // The component tells its connections when it stops, in the order in which they were listed: this one
  // first.
  class end_notice : public KXconnection {
   public:
    explicit end_notice(app& of) : KXconnection(of.m_component.get()), m_app(of) {
      of.m_component->bind_siid(no_siid, this);
    }
    void disconnect(bool /*remove*/) override { m_app.close(); }

   private:
    app& m_app;
  };

  void startup_phase0(KXcomponent*) override { go_up(); }
  void startup_phase1(KXcomponent*) override {
    const result<> offered = offer_all();
    if (!offered) throw detail::start_failure{offered.error().reason};
  }
  void startup_phase2(KXcomponent*) override {
    use_all();
    m_component->loop_follows();
  }

  void look_for_core() {
    const std::string& socket = m_component->core_socket();
    if (access(socket.c_str(), F_OK) == 0) return;
    const std::string missing = "kxcore does not run, there is no " + socket;
    if (!m_waits) throw detail::start_failure{missing};
    say("waiting: " + missing);
  }

  int fail(const std::string& reason) {
    say(reason);
    if (m_component != nullptr) m_component->stop();
    return 1;
  }

  void say(const std::string& text) const { std::fprintf(stderr, "%s: %s\n", m_name.c_str(), text.c_str()); }

  const std::string m_name;
  std::unique_ptr<detail::component> m_component;  // null: its sockets could not be bound
  std::optional<end_notice> m_end;
  std::string m_bind_failure;
  bool m_waits = true;
  int m_status = 0;
};

/// The main function of an application that is written as a function of its port: makes the kx::app `name`
/// and returns what `application(kx::port&)` does, as a rule what the port's run returns.
template <class Application>
int run(std::string name, Application application) {
  app made(std::move(name));
  return application(made);
}

}  // namespace kx

#endif
