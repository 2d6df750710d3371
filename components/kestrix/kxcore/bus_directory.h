// The core's place in the file system: the bus directory, the lock that tells a running core, and the files
// of the core's own sockets. In a directory that others may write to, all of them may be removed or replaced
// at any time: nothing is followed, and nothing removed that is not the core's own.
#ifndef BUS_DIRECTORY_H
#define BUS_DIRECTORY_H

#include <string>

#include "socket_file.h"
#include "unique_fd.h"

class bus_directory {
 public:
  // Creates the directory if it is missing, and locks it. Throws std::runtime_error, with the line that says
  // why not: it is no directory of this user's or root's, or another core runs.
  explicit bus_directory(std::string path);
  ~bus_directory();
  bus_directory(const bus_directory&) = delete;
  bus_directory& operator=(const bus_directory&) = delete;

  // As at the beginning, when the directory or the lock may have been replaced.
  void enter();

  // Throws std::runtime_error unless nothing stands at `path`, or a socket that a dead process has left.
  static void check_place(const std::string& path);

  // Readable when something has happened to the directory; -1 where the system cannot tell.
  int fd() const { return m_events.get(); }

  // Takes what has happened; whether it was to the directory itself or to files whose names begin as the
  // core's.
  bool has_changed() const;

 private:
  void open_directory();
  void lock();
  bool holds_lock() const;
  unique_fd open_lock() const;

  const std::string m_path;
  const std::string m_lock_path;
  unique_fd m_events;  // inotify
  unique_fd m_lock;
};

// The file of one of the core's sockets.
class own_file {
 public:
  enum state_e { OWN, ABSENT, FOREIGN };

  // The file that stands at `path` now is the core's own.
  explicit own_file(std::string path);
  void remember();  // from now on, this one

  const std::string& path() const { return m_path; }

  state_e state() const;

 private:
  const std::string m_path;
  file_identity m_identity;
};

#endif
