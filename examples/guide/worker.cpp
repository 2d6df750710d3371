// Asks the oven for its temperature from a thread of its own, which wakes the event loop through a
// descriptor.
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "KXclientComponent.h"
#include "KXinterface.h"
#include "KXproxy.h"
#include "reason.h"

namespace {

class worker : public KXinterface {
 public:
  explicit worker(KXcomponent& component)
      : m_component(component), m_oven(&component), m_wakeup(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    the_worker = this;
    component.add_interface(this);
    component.add_close_cb(end);
  }

  ~worker() override {
    m_component.stop();
    close(m_wakeup);
  }

  void startup_phase0(KXcomponent*) override {}
  // [start]
  void startup_phase1(KXcomponent*) override {
    m_oven.subscribe_synchronous("oven.temperature");
    m_component.add_socket_descriptor(m_wakeup, this, static_show);
  }
  void startup_phase2(KXcomponent*) override {
    m_thread = std::thread([this] { work(); });
  }
  // [start]

 private:
  // [thread]
  // Each call blocks the thread, and the event loop from its next look at the timers on.
  void work() {
    while (m_runs) {
      KXmessage message;
      if (m_oven.proxy_send(message) == 1 && message.m_header->msg_type == MSG_RSP) {
        int degrees = 0;
        message >> degrees;
        m_degrees = degrees;
        eventfd_write(m_wakeup, 1);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
  }
  // [thread]

  // [descriptor]
  static int static_show(void* context, int /*fd*/) {
    static_cast<worker*>(context)->show();
    return 0;
  }

  // On the event loop's thread. What is not read would make the descriptor readable for ever.
  void show() {
    eventfd_t count = 0;
    eventfd_read(m_wakeup, &count);
    std::printf("%d degrees\n", m_degrees.load());
  }
  // [descriptor]

  // [close]
  // The close callback, by which stop begins: the thread still gets the response that it may wait for.
  static int end() {
    the_worker->m_runs = false;
    if (the_worker->m_thread.joinable()) the_worker->m_thread.join();
    return 0;
  }
  // [close]

  static inline worker* the_worker = nullptr;

  KXcomponent& m_component;
  KXproxy m_oven;
  const int m_wakeup;
  std::atomic<int> m_degrees{0};
  std::atomic<bool> m_runs{true};
  std::thread m_thread;
};

}  // namespace

int main() {
  try {
    KXclientComponent component("guide-worker");
    worker application(component);
    component.start(KXcomponent::CMP_START_AND_LOOP);
    return 0;
  } catch (const KXerror::error_e& error) {
    std::fprintf(stderr, "guide-worker: %s\n", reason_of(error));
    return 1;
  }
}
