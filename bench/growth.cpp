// How the costs of the bus grow with what is on it.
#include <arpa/inet.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "KXstub.h"
#include "child_process.h"
#include "echo.h"
#include "private_bus.h"
#include "record.h"
#include "socket_address.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: growth components|services|subscribers|monitors|timers N [--pin CPU]\n"
    "\n"
    "  components N   with N components on the bus: time of a round trip and of a subscription, memory of\n"
    "                 kxcore (RssAnon)\n"
    "  services N     the same with N services\n"
    "  subscribers N  time from sending a signal until all of N components have received it\n"
    "  monitors N     time of a round trip while N programs, 0 too, are shown all messages, on any "
    "processor\n"
    "  timers N       with N timers armed: time of arming and removing one, time of firing one\n";

constexpr long calls = 4000;
constexpr long subscriptions = 500;
constexpr long signals = 200;
constexpr long armings = 1000;
constexpr int services_at_once = 1000;  // of a component; kxcore grants 1,024

// Counts what happens in other processes.
class counter {
 public:
  counter() {
    if (pipe(m_ends) != 0) bench::fail("no pipe can be had");
  }
  void count() const {
    if (write(m_ends[1], "", 1) != 1) _exit(EXIT_FAILURE);
  }
  void await(int count) const {
    char bytes[256];
    while (count > 0) {
      const ssize_t taken = read(m_ends[0], bytes, std::min<std::size_t>(sizeof bytes, count));
      if (taken <= 0) bench::fail("a helper has ended");
      count -= static_cast<int>(taken);
    }
  }

 private:
  int m_ends[2];
};

// A component that leaves the process's signals alone.
std::unique_ptr<KXclientComponent> join(const std::string& name) {
  static constexpr KXcomponent::ExtraCfg without_signals = {};
  auto component = std::make_unique<KXclientComponent>(name.c_str(), &without_signals);
  component->register_component();
  return component;
}

class silent_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;
  void process_message(KXmessage&) override {}
};

// Puts components and services on the bus, and stays.
void crowd(int components, int services, const counter& ready) {
  std::vector<std::string> names;
  for (int i = 0; i < components; ++i)
    names.push_back("crowd-" + std::to_string(i));
  std::vector<std::unique_ptr<KXclientComponent>> members;
  for (const std::string& name : names)
    members.push_back(join(name));
  std::vector<std::unique_ptr<silent_stub>> stubs;
  for (int i = 0; i < services; ++i) {
    stubs.push_back(
        std::make_unique<silent_stub>(members[static_cast<std::size_t>(i) % members.size()].get()));
    stubs.back()->register_synchronous(("crowd.service." + std::to_string(i)).c_str());
  }
  ready.count();
  pause();
}

long rss_anon_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    long kib = 0;
    if (word == "RssAnon:" && status >> kib) return kib;
  }
  return -1;
}

double subscription_seconds(KXcomponent& component) {
  const double started = bench::now_seconds();
  for (long i = 0; i < subscriptions; ++i) {
    KXproxy proxy(&component);
    subscribe_when_offered(proxy);
    proxy.disconnect(true);
  }
  return (bench::now_seconds() - started) / static_cast<double>(subscriptions);
}

void measure_crowd(const char* what, long population, int components, int services, int datagram_size) {
  const std::unique_ptr<child_process> core = start_core();
  const counter ready;
  child_process server(serve_echo);
  child_process others([&] { crowd(components, services, ready); });
  ready.await(1);
  {
    const std::unique_ptr<KXclientComponent> component = join("growth");
    KXproxy proxy(component.get());
    subscribe_when_offered(proxy);
    echo_caller call(proxy, text_for(datagram_size));
    bench::exchange(
        calls / 10, bench::round_trips, [](long) {}, call);
    const double seconds = bench::exchange(
        calls, bench::round_trips, [](long) {}, call);
    std::printf("%s=%ld us_per_roundtrip=%.3f us_per_subscription=%.3f kxcore_rss_anon_kib=%ld\n", what,
                population, seconds * 1e6, subscription_seconds(*component) * 1e6, rss_anon_kib(core->pid()));
    component->stop();
  }
}

// --- signals ---

constexpr char signal_name[] = "growth.signal";

class listener : public KXproxy {
 public:
  listener(KXcomponent* component, const counter& received) : KXproxy(component), m_received(received) {}
  using KXproxy::process_message;
  void process_message(KXmessage&) override { m_received.count(); }

 private:
  const counter& m_received;
};

void listen(int number, const counter& received) {
  const std::string name = "listener-" + std::to_string(number);
  KXclientComponent component(name.c_str());
  component.register_component();
  listener proxy(&component, received);
  proxy.subscribe_signal(signal_name);
  received.count();
  component.wait(true);
}

class signal_stub : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;
  void process_message(KXmessage&) override {}

  void send(const std::string& text) {
    KXmessage message = make_request(0, text);
    message.m_header->dst_siid = htonl(m_siid);
    message.m_header->msg_type = MSG_SIG;
    if (!connection_send(message)) bench::fail("the signal was not sent");
  }
};

void measure_subscribers(int population, int datagram_size) {
  const std::unique_ptr<child_process> core = start_core();
  const std::unique_ptr<KXclientComponent> component = join("growth");
  signal_stub stub(component.get());
  stub.register_signal(signal_name);
  const counter received;
  {
    std::vector<std::unique_ptr<child_process>> listeners;
    for (int i = 0; i < population; ++i) {
      listeners.push_back(std::make_unique<child_process>([&, i] { listen(i, received); }));
      received.await(1);
    }
    const std::string text = text_for(datagram_size);
    const auto send = [&](long) { stub.send(text); };
    const auto await = [&](long) { received.await(population); };
    bench::exchange(signals / 10, bench::round_trips, send, await);
    const double seconds = bench::exchange(signals, bench::round_trips, send, await);
    std::printf("subscribers=%d us_until_all_received=%.3f\n", population, seconds * 1e6);
  }
  component->stop();
}

// --- monitors ---

// Reads what a monitor is shown. It rests a moment whenever nothing is left, so that the core need not wake
// it for each record.
void watch(const counter& ready) {
  cpu_set_t all;
  std::memset(&all, 0xFF, sizeof all);
  sched_setaffinity(0, sizeof all, &all);
  const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = socket_address(std::string(bus_path) + ".kxcore/monitor");
  KXmessage hello;
  hello << static_cast<unsigned int>(record_version), hello << "", hello << "";
  if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      send(connection, hello.data + hello.offset, static_cast<std::size_t>(hello.size), 0) < 0)
    _exit(EXIT_FAILURE);
  char record[4096];
  for (bool is_first = true; recv(connection, record, sizeof record, 0) > 0; is_first = false) {
    if (is_first) ready.count();
    while (recv(connection, record, sizeof record, MSG_DONTWAIT) > 0) {
    }
    usleep(1000);
  }
  _exit(EXIT_SUCCESS);
}

void measure_monitors(int population, int datagram_size) {
  const std::unique_ptr<child_process> core = start_core();
  const counter ready;
  child_process server(serve_echo);
  const std::unique_ptr<KXclientComponent> component = join("growth");
  {
    KXproxy proxy(component.get());
    subscribe_when_offered(proxy);
    std::vector<std::unique_ptr<child_process>> monitors;
    for (int i = 0; i < population; ++i) {
      monitors.push_back(std::make_unique<child_process>([&] { watch(ready); }));
      ready.await(1);
    }
    echo_caller call(proxy, text_for(datagram_size));
    const auto nothing = [](long) {};
    bench::exchange(calls / 10, bench::round_trips, nothing, call);
    const double seconds = bench::exchange(calls, bench::round_trips, nothing, call);
    std::printf("monitors=%d us_per_roundtrip=%.3f\n", population, seconds * 1e6);
    component->stop();
  }
}

// --- timers ---

class timekeeper : public KXclientComponent {
 public:
  using KXclientComponent::KXclientComponent;

  // Arms and removes a timer whose deadline is anywhere among the others.
  double arming_seconds(int population) {
    for (int i = 0; i < population; ++i)
      add_msec_timer(shortest + i, this, static_fire, i);
    const double started = bench::now_seconds();
    for (int i = 0; i < armings; ++i) {
      add_msec_timer(shortest + static_cast<int>(i * 7919L % population), this, static_fire, population);
      del_timer(this, static_fire, population);
    }
    const double seconds = (bench::now_seconds() - started) / static_cast<double>(armings);
    for (int i = 0; i < population; ++i)
      del_timer(this, static_fire, i);
    return seconds;
  }

  // Runs the event loop, which ends with the last timer; and with it the component. From the first timer to
  // the last.
  double firing_seconds(int population) {
    m_unfired = m_population = population;
    for (int i = 0; i < population; ++i)
      add_msec_timer(0, this, static_fire, i);
    usleep(10'000);  // all are due
    wait(true);
    return m_fired_seconds / std::max(population - 1, 1);
  }

 private:
  static constexpr int shortest = 500'000;

  static int static_fire(void* context, int) {
    static_cast<timekeeper*>(context)->fire();
    return -1;
  }

  void fire() {
    if (m_unfired == m_population) m_started = bench::now_seconds();
    if (--m_unfired > 0) return;
    m_fired_seconds = bench::now_seconds() - m_started;
    m_running = false;
  }

  int m_population = 0;
  int m_unfired = 0;
  double m_started = 0;
  double m_fired_seconds = 0;
};

void measure_timers(int population) {
  const std::unique_ptr<child_process> core = start_core();
  timekeeper component("growth");
  component.register_component();
  const double arming = component.arming_seconds(population);
  const double firing = component.firing_seconds(population);
  std::printf("timers=%d us_per_arming=%.3f us_per_firing=%.3f\n", population, arming * 1e6, firing * 1e6);
}

void raise_descriptor_limit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, smallest_datagram);
  const int population = static_cast<int>(options.count);
  enter_private_bus();
  raise_descriptor_limit();
  if (options.mode == "components") {
    measure_crowd("components", population, std::max(population - 2, 0), 0, options.size);
  } else if (options.mode == "services") {
    const int holders = (population + services_at_once - 1) / services_at_once;
    measure_crowd("services", population, holders, population - 1, options.size);
  } else if (options.mode == "subscribers") {
    measure_subscribers(population, options.size);
  } else if (options.mode == "monitors") {
    measure_monitors(population, options.size);
  } else if (options.mode == "timers") {
    measure_timers(population);
  } else {
    bench::fail("%s", usage);
  }
  return 0;
}
