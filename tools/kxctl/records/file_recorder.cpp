// Keeps everything in a file, or in the newest of several.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "amount.h"
#include "pcapng.h"
#include "recorder.h"
#include "recording_file.h"
#include "shell.h"

namespace {

// When a next file is begun, and how many there are: FILE is the newest, FILE.1 the one before.
struct rotation {
  std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max();
  unsigned int files = 1;

  explicit rotation(const std::string& text) {
    if (text.empty()) return;
    const std::size_t colon = std::min(text.find(':'), text.size());
    bytes = bytes_of(text.substr(0, colon), "--rotate");
    files = count_of(text.substr(std::min(colon + 1, text.size())), "--rotate");
  }
};

class file_recorder : public recorder {
 public:
  explicit file_recorder(const capture_options& what)
      : m_path(what.file), m_rotation(what.rotate), m_file(std::make_unique<recording_file>(what.file)) {}

  bool take(const entry& what, bool is_wanted) override {
    if (!is_wanted) return false;
    append_packet(m_waiting, what);
    if (!what.is_of_bus()) ++m_count;
    if (m_file->size() + m_waiting.size() >= m_rotation.bytes) rotate();
    return true;
  }

  void flush() override {
    m_file->write(m_waiting);
    m_waiting.clear();
  }

  unsigned long count() const override { return m_count; }
  std::string summary() const override { return std::to_string(m_count) + " records in " + m_file->path(); }

 private:
  void rotate() {
    flush();
    for (unsigned int i = m_rotation.files; i-- > 1;)
      if (std::rename(name(i - 1).c_str(), name(i).c_str()) != 0 && errno != ENOENT)
        throw failure(REFUSED, name(i) + ": " + strerror(errno));
    m_file = std::make_unique<recording_file>(m_path);
  }
  std::string name(unsigned int age) const { return age == 0 ? m_path : m_path + '.' + std::to_string(age); }

  const std::string m_path;
  const rotation m_rotation;
  std::unique_ptr<recording_file> m_file;
  std::string m_waiting;
  unsigned long m_count = 0;
};

}  // namespace

std::unique_ptr<recorder> make_file_recorder(const capture_options& what) {
  return std::make_unique<file_recorder>(what);
}
