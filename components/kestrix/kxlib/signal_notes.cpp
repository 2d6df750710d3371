#include "signal_notes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace {

// Write a number, as snprintf would, which is not async-signal-safe; the place behind it.
char* write_number(char* to, pid_t number) {
  char digits[16];
  std::size_t count = 0;
  auto left = static_cast<unsigned int>(number);
  if (number < 0) {
    *to++ = '-';
    left = 0 - left;
  }
  do {
    digits[count++] = static_cast<char>('0' + left % 10);
    left /= 10;
  } while (left > 0);
  while (count > 0)
    *to++ = digits[--count];
  return to;
}

template <std::size_t size>
char* write_text(char* to, const char (&text)[size]) {
  std::memcpy(to, text, size - 1);
  return to + size - 1;
}

}  // namespace

void take_note(signal_note& note, int signal, pid_t sender) {
  note.signal = signal;
  std::memset(note.sender, 0, sizeof note.sender);
  write_number(write_text(note.sender, "(pid)  "), sender);

  char path[40] = {};
  write_text(write_number(write_text(path, "/proc/"), sender), "/cmdline");
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return;
  const ssize_t count = read(fd, note.sender, signal_note::sender_size);
  if (count > 0 && note.sender[count - 1] == '\n') note.sender[count - 1] = '\0';
  close(fd);
}

bool signal_notes::add(const signal_note& note) {
  unsigned int place = m_added;
  do {
    const bool full = static_cast<int>(place - m_taken) >= capacity;
    if (full || m_ready[place % capacity]) return false;  // full, or the oldest is just being taken
  } while (!m_added.compare_exchange_weak(place, place + 1));
  m_notes[place % capacity] = note;
  m_ready[place % capacity] = true;
  return true;
}

bool signal_notes::take(signal_note& note) {
  unsigned int place = m_taken;
  do {
    if (place == m_added || !m_ready[place % capacity]) return false;
  } while (!m_taken.compare_exchange_weak(place, place + 1));
  note = m_notes[place % capacity];
  m_ready[place % capacity] = false;
  return true;
}
