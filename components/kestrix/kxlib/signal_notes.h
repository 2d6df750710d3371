// What the INFO line about a termination signal needs, gathered where no line can be written: in the signal
// handler.
#ifndef SIGNAL_NOTES_H
#define SIGNAL_NOTES_H

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>

struct signal_note {
  static constexpr std::size_t sender_size = 1024;  // without the final NUL, which stays

  int signal;
  char sender[sender_size + 1];  // the first word of its command line, or "(pid)  " and its number
};

// Fills `note`. Async-signal-safe.
void take_note(signal_note& note, int signal, pid_t sender);

// A ring of notes, in the order of their signals. Handlers may add on several threads, and interrupt each
// other; all operations are async-signal-safe.
class signal_notes {
 public:
  // As many as there are kill messages that the loop has not served.
  static constexpr int capacity = 64;

  // Whether there was room.
  bool add(const signal_note& note);

  // Takes out the oldest; false when there is none, or its handler is still at it.
  bool take(signal_note& note);

 private:
  static_assert(std::atomic<unsigned int>::is_always_lock_free, "the signal handler takes no lock");

  std::atomic<unsigned int> m_added{0};
  std::atomic<unsigned int> m_taken{0};
  std::array<std::atomic<bool>, capacity> m_ready{};
  std::array<signal_note, capacity> m_notes;  // apart, so that pages without a note are never touched
};

#endif
