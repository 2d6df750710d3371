#include "other_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

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

bool sleeps_in(const std::function<void()>& work, const std::function<void()>& release) {
  std::atomic<long> thread{0};
  std::atomic<bool> done{false};
  std::thread other([&] {
    thread = syscall(SYS_gettid);
    work();
    done = true;
  });
  bool asleep = false;
  while (!done && !asleep)
    asleep = thread != 0 && is_asleep(thread);
  release();
  other.join();
  return asleep;
}

bool waits_for(pthread_mutex_t& mutex, const std::function<void()>& work) {
  pthread_mutex_lock(&mutex);
  return sleeps_in(work, [&] { pthread_mutex_unlock(&mutex); });
}
