#include "longer_queues.h"

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>

namespace {

constexpr char setting[] = "/proc/sys/net/unix/max_dgram_qlen";  // of the thread's network namespace

int current_length() {
  int length = socket_queue;  // without the setting there is nothing to raise
  std::ifstream(setting) >> length;
  return length;
}

std::string lengthen() {
  const int length = current_length();
  if (length >= socket_queue) return {};
  if (unshare(CLONE_NEWNET) != 0) return std::string("a network namespace: ") + strerror(errno);
  std::ofstream(setting) << socket_queue;
  if (current_length() >= socket_queue) return {};
  return std::string(setting) + " in a network namespace cannot be written";
}

}  // namespace

std::string with_longer_queues(const std::function<void()>& create) {
  return std::async(std::launch::async,
                    [&create] {
                      std::string reason = lengthen();
                      create();
                      return reason;
                    })
      .get();
}
