// The one race that is meant: poll reads the set of descriptors and writes its revents while other threads
// may change it. What it then finds is not used, and what it writes is overwritten by the next poll. Lives as
// long as the call, and keeps ThreadSanitizer from reporting it.
#ifndef RACE_WITH_POLL_H
#define RACE_WITH_POLL_H

#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define KX_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define KX_THREAD_SANITIZER
#endif

#ifdef KX_THREAD_SANITIZER
extern "C" {
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#endif

class race_with_poll {
 public:
#ifdef KX_THREAD_SANITIZER
  race_with_poll() { AnnotateIgnoreWritesBegin(__FILE__, __LINE__); }
  ~race_with_poll() { AnnotateIgnoreWritesEnd(__FILE__, __LINE__); }
#else
  race_with_poll() {}
#endif
  race_with_poll(const race_with_poll&) = delete;
  race_with_poll& operator=(const race_with_poll&) = delete;
};

#endif
