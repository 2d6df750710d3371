// Plain members that several threads and the signal handler read and write.
#ifndef SHARED_MEMBER_H
#define SHARED_MEMBER_H

template <typename T>
T load(const T& member) {
  return __atomic_load_n(&member, __ATOMIC_ACQUIRE);
}

template <typename T>
void store(T& member, T value) {
  __atomic_store_n(&member, value, __ATOMIC_RELEASE);
}

#endif
