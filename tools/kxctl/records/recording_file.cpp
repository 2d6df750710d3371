#include "recording_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "patient_write.h"
#include "pcapng.h"
#include "shell.h"

recording_file::recording_file(const std::string& path)
    : m_path(path == "-" ? "standard output" : path),
      m_own(path == "-" ? -1 : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
      m_fd(path == "-" ? STDOUT_FILENO : m_own.get()) {
  if (m_fd < 0) throw failure(REFUSED, m_path + ": " + strerror(errno));
  if (isatty(m_fd) != 0)
    throw failure(USAGE, "a recording is nothing for a terminal: name a file with -w, or pipe it");
  write(pcapng_beginning());
}

void recording_file::write(const std::string& blocks) {
  std::size_t done = 0;
  while (done < blocks.size()) {
    const ssize_t written = write_some(m_fd, std::string_view(blocks).substr(done));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      const int error = errno;
      if (error == EPIPE) throw failure(DONE, "");  // nobody reads it any more
      // A part of a block would be taken for a broken file. A pipe cannot be made shorter.
      if (ftruncate(m_fd, static_cast<off_t>(m_size)) != 0) m_size += done;
      throw failure(REFUSED, m_path + ": " + strerror(error));
    }
    done += static_cast<std::size_t>(written);
  }
  m_size += done;
}
