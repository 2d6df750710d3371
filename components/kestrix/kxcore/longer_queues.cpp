#include "longer_queues.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace {

constexpr char setting[] = "/proc/sys/net/unix/max_dgram_qlen";  // of the thread's network namespace

int current_length() {
  int length = socket_queue;  // without the setting there is nothing to raise
  std::ifstream(setting) >> length;
  return length;
}

std::string failure(const char* what) { return std::string(what) + ": " + strerror(errno); }

}  // namespace

longer_queues::longer_queues() : m_refusal(enter()) {}

std::string longer_queues::enter() {
  if (current_length() >= socket_queue) return {};
  unique_fd before(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (before.get() < 0) return failure("cannot open its network namespace");
  if (unshare(CLONE_NEWNET) != 0) return failure("cannot enter a network namespace of their own");
  m_before = std::move(before);
  std::ofstream(setting) << socket_queue;
  return current_length() >= socket_queue ? std::string() : std::string("cannot write ") + setting;
}

longer_queues::~longer_queues() {
  if (m_before.get() >= 0) setns(m_before.get(), CLONE_NEWNET);
}
