#include "other_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "mutex_lock.h"
#include "seam.h"

namespace {

bool is_asleep(long thread) {
  char line[256] = {};
  FILE* const stat = std::fopen(("/proc/self/task/" + std::to_string(thread) + "/stat").c_str(), "r");
  if (stat == nullptr) return false;
  const bool is_read = std::fgets(line, sizeof line, stat) != nullptr;  // unless it has ended meanwhile
  std::fclose(stat);
  return is_read && std::strstr(line, ") S ") != nullptr;
}

}  // namespace

void on_another_thread(const std::function<void()>& work) {
  std::thread([&work] {
    seam::enlist();
    work();
  }).join();
}

bool is_free(pthread_mutex_t& mutex) {
  bool locked = false;
  std::thread([&] {
    locked = pthread_mutex_trylock(&mutex) == 0;
    if (locked) pthread_mutex_unlock(&mutex);
  }).join();
  return locked;
}

bool waits_for(pthread_mutex_t& mutex, const std::function<void()>& work) {
  std::atomic<long> thread{0};
  std::atomic<bool> done{false};
  std::thread other;
  bool waited = false;
  {
    const mutex_lock held(mutex);
    other = std::thread([&] {
      thread = syscall(SYS_gettid);
      work();
      done = true;
    });
    while (!done && !waited)
      waited = thread != 0 && is_asleep(thread);
  }
  other.join();
  return waited;
}
