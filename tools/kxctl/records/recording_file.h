// A file that a recording is written to, readable at any time.
#ifndef KXCTL_RECORDING_FILE_H
#define KXCTL_RECORDING_FILE_H

#include <cstdint>
#include <string>

#include "unique_fd.h"

class recording_file {
 public:
  // "-" is standard output. Throws failure when it cannot be made.
  explicit recording_file(const std::string& path);

  // Whole blocks. Throws failure when there is no room; what is there stays whole.
  void write(const std::string& blocks);

  std::uint64_t size() const { return m_size; }
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
  unique_fd m_own;
  int m_fd;
  std::uint64_t m_size = 0;
};

#endif
