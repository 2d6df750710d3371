// Keeps the newest records in memory, and writes them when something happens: the flight recorder.
#include <cstdio>

#include "clock_text.h"
#include "filter.h"
#include "pcapng.h"
#include "recorder.h"
#include "recording_file.h"
#include "ring.h"

namespace {

// FILE with the time in front of its ending.
std::string name_at(const std::string& path, std::uint64_t time_ns) {
  const std::size_t slash = path.rfind('/');
  std::size_t dot = path.rfind('.');
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  if (dot == std::string::npos || dot <= begin) dot = path.size();
  return path.substr(0, dot) + time_text(time_ns, "-%Y%m%d-%H%M%S") + path.substr(dot);
}

class ring_recorder : public recorder {
 public:
  explicit ring_recorder(const capture_options& what)
      : m_path(what.file), m_ring(what.ring), m_trigger({what.on}) {}

  bool take(const entry& what, bool is_wanted) override {
    const bool is_trigger = m_trigger.matches(what);
    if (is_wanted || is_trigger) {
      std::string packet;
      append_packet(packet, what);
      m_ring.add(what.head.monotonic_ns, std::move(packet));  // the other clock may be set
    }
    if (is_trigger) write(name_at(m_path, what.head.time_ns));
    return is_wanted || is_trigger;
  }

  unsigned long count() const override { return m_count; }
  std::string summary() const override {
    return m_count == 0 ? "nothing has matched --on" : std::to_string(m_count) + " files written";
  }

 private:
  // What happens again in the same second is written to the same file.
  void write(const std::string& path) {
    const std::uint64_t lost = m_ring.lost();
    if (!m_file || m_file->path() != path) {
      m_file = std::make_unique<recording_file>(path);
      ++m_count;
      std::fprintf(stderr, "kxctl: %s\n", path.c_str());
    }
    m_file->write(m_ring.take());
    if (lost > 0)
      std::fprintf(stderr, "kxctl: %llu older records are missing in it: the ring holds %zu MiB at most\n",
                   static_cast<unsigned long long>(lost), ring::most_bytes >> 20);
  }

  const std::string m_path;
  ring m_ring;
  const filter m_trigger;
  std::unique_ptr<recording_file> m_file;
  unsigned long m_count = 0;
};

}  // namespace

std::unique_ptr<recorder> make_ring_recorder(const capture_options& what) {
  return std::make_unique<ring_recorder>(what);
}
