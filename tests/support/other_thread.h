// What another thread can do while this one does something.
#ifndef TESTS_OTHER_THREAD_H
#define TESTS_OTHER_THREAD_H

#include <pthread.h>

#include <functional>

// Runs `work` on a thread of its own, to its end. What it calls is armed as if this thread had called it.
void on_another_thread(const std::function<void()>& work);

// Whether another thread could lock `mutex` now.
bool is_free(pthread_mutex_t& mutex);

// Whether `work`, on a thread of its own, sleeps before its end; which `release` then lets it come to.
bool sleeps_in(const std::function<void()>& work, const std::function<void()>& release);

// Whether `work`, on a thread of its own, waits for `mutex`. This thread holds it meanwhile.
bool waits_for(pthread_mutex_t& mutex, const std::function<void()>& work);

#endif
