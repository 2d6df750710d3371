// The file of a socket, held open: what was looked at is what is sent to, whoever may replace the file
// meanwhile.
#ifndef SOCKET_FILE_H
#define SOCKET_FILE_H

#include <sys/types.h>
#include <sys/un.h>

#include <string>

#include "unique_fd.h"

// Who owns a file, and what distinguishes it from others that may stand under its path.
struct file_identity {
  uid_t owner = 0;
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const file_identity& other) const { return device == other.device && inode == other.inode; }
};

class socket_file {
 public:
  // Opens what stands at `path`, if that is a socket itself and no link to one.
  explicit socket_file(const std::string& path);

  // False, with errno after the construction, when there is none.
  bool exists() const { return m_file.get() >= 0; }

  const file_identity& identity() const { return m_identity; }

  // The address of this very socket, as long as the object lives. On a system without /proc it is the path.
  sockaddr_un address() const;

 private:
  std::string m_path;
  unique_fd m_file;
  file_identity m_identity;
};

// A non-blocking datagram socket without a name, or -1.
int open_datagram();

#endif
