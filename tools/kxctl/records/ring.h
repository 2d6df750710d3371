// The newest records, in memory.
#ifndef KXCTL_RING_H
#define KXCTL_RING_H

#include <cstdint>
#include <deque>
#include <string>

class ring {
 public:
  static constexpr std::size_t most_bytes = 64 << 20;  // whatever was asked for

  // Of the last seconds ("30s") or bytes ("8M"). Throws failure with status USAGE for another text.
  explicit ring(const std::string& limit);

  void add(std::uint64_t time_ns, std::string packet);

  // What is there, oldest first; nothing is there afterwards.
  std::string take();

  // Records since the last take that went before their time, for want of room.
  std::uint64_t lost() const { return m_lost; }

 private:
  struct kept {
    std::uint64_t time_ns;
    std::string packet;
  };
  static constexpr std::size_t overhead = sizeof(kept) + 16;  // of one in memory, about

  bool is_old(const kept& what) const;

  std::deque<kept> m_kept;
  std::size_t m_bytes = 0;
  std::size_t m_max_bytes = most_bytes;
  std::uint64_t m_span_ns = 0;  // 0: any
  std::uint64_t m_newest_ns = 0;
  std::uint64_t m_lost = 0;
};

#endif
