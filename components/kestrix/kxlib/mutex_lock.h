// Holds a component's recursive mutex for a scope, so that every way out of it, exceptions included, releases
// it.
#ifndef MUTEX_LOCK_H
#define MUTEX_LOCK_H

#include <pthread.h>

class mutex_lock {
 public:
  explicit mutex_lock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
  ~mutex_lock() { pthread_mutex_unlock(&m_mutex); }
  mutex_lock(const mutex_lock&) = delete;
  mutex_lock& operator=(const mutex_lock&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

#endif
