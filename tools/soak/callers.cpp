#include "callers.h"

#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "board.h"
#include "exchange.h"
#include "parts.h"
#include "servers.h"

namespace {

using proxy_list = std::vector<std::unique_ptr<KXproxy>>;

proxy_list subscribe_to_servers(KXcomponent& component, int servers) {
  proxy_list subscribed;
  for (int i = flooded_server + 1; i < servers; ++i) {
    subscribed.push_back(std::make_unique<KXproxy>(&component));
    subscribe(*subscribed.back(), numbered("server", i), KXconnection::SYNC);
  }
  return subscribed;
}

// Takes requests until there are none left; whether they count in the latency.
void call_servers(const proxy_list& servers, const std::string& name, long requests, unsigned int seed,
                  bool is_timed) {
  await_begin();
  random_source random(seed);
  for (long number; (number = board->taken++) < requests;) {
    const std::size_t length = random() % 16 == 0 ? largest_text : random() % 64;
    const std::uint64_t started = now_ns();
    const auto id = static_cast<unsigned long long>(number);
    if (const char* const wrong = call(*servers[random() % servers.size()], id, length)) {
      fail_request(name, id, wrong);
    } else {
      if (is_timed) board->latency.add(now_ns() - started);
      ++board->answered;
    }
  }
}

// Receives the counts of a server: in order, and none twice.
class count_watch : public KXproxy {
 public:
  using KXproxy::KXproxy;
  using KXproxy::process_message;

  void process_message(KXmessage& signal) override {
    unsigned long long count = 0;
    signal >> count;
    if (count <= m_last) fail_request("the watching caller", count, "was counted twice, or out of order");
    m_last = count;
    ++board->counts;
  }

 private:
  unsigned long long m_last = 0;
};

class mortal : public KXproxy {
 public:
  mortal(KXcomponent* component, std::string name) : KXproxy(component), m_name(std::move(name)) {
    subscribe(*this, numbered("server", flooded_server), SYNC);
    component->add_msec_timer(1, this, static_call, 0);
  }

 private:
  static int static_call(void* self, int) {
    auto& user = *static_cast<mortal*>(self);
    if (call(user, ++user.m_calls, 10) == not_its_own) fail_request(user.m_name, user.m_calls, not_its_own);
    return 0;
  }

  const std::string m_name;
  unsigned long long m_calls = 0;
};

}  // namespace

void live_as_caller(const std::string& name, int servers, long requests, unsigned int seed) {
  KXclientComponent component(name.c_str(), nullptr);
  component.register_component();
  const proxy_list subscribed = subscribe_to_servers(component, servers);
  call_servers(subscribed, name, requests, seed, true);
  component.stop();
}

void live_as_watching_caller(const std::string& name, int servers, long requests, unsigned int seed) {
  const signal_storm storm;
  KXclientComponent component(name.c_str(), nullptr);
  component.register_component();
  count_watch watch(&component);
  subscribe(watch, counting_service, KXconnection::SGNL);
  const proxy_list subscribed = subscribe_to_servers(component, servers);
  std::thread calling([&] {
    call_servers(subscribed, name, requests, seed, false);
    component.sendKillMsgToSelf();
  });
  component.wait(true);
  calling.join();
}

void live_dangerously(const std::string& name) {
  KXclientComponent component(name.c_str(), nullptr);
  component.register_component();
  echo service(&component);
  service.register_synchronous(name.c_str());
  mortal user(&component, name);
  component.wait(true);
}
