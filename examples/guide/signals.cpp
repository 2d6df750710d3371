// Takes its signals from a descriptor of its own event loop: SIGHUP has it read its settings again, SIGTERM
// and SIGINT end it.
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <initializer_list>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "reason.h"

namespace {

// [signals]
// The signals are blocked in the whole process, and come through the descriptor one after the other.
int open_signals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int each : signals)
    sigaddset(&set, each);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

class signal_reader : public KXinterface {
 public:
  explicit signal_reader(KXcomponent& component)
      : m_component(component), m_signals(open_signals({SIGHUP, SIGINT, SIGTERM})) {
    component.add_interface(this);
  }
  ~signal_reader() override {
    m_component.stop();
    close(m_signals);
  }

  void startup_phase0(KXcomponent*) override {}
  void startup_phase1(KXcomponent*) override {}
  void startup_phase2(KXcomponent*) override {
    m_component.add_socket_descriptor(m_signals, this, static_take);
  }

 private:
  static int static_take(void* context, int /*fd*/) {
    static_cast<signal_reader*>(context)->take();
    return 0;
  }

  void take() {
    signalfd_siginfo taken = {};
    if (read(m_signals, &taken, sizeof taken) != sizeof taken) return;
    if (taken.ssi_signo == SIGHUP) {
      std::puts("settings read again");
    } else {
      m_component.sendKillMsgToSelf();
    }
  }

  KXcomponent& m_component;
  const int m_signals;
};
// [signals]

}  // namespace

int main() {
  try {
    // [config]
    const KXcomponent::ExtraCfg own_signals = {nullptr, false};
    KXclientComponent component("guide-signals", &own_signals);
    // [config]
    signal_reader application(component);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-signals: %s\n", reason_of(error));
    return 1;
  }
}
