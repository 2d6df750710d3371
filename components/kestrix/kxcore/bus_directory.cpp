#include "bus_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr char lock_name[] = "/.kxcore.lock";
constexpr char own_names[] = "kxcore";  // how those of its sockets begin
constexpr unsigned int changes = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                 IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + " " + reason);
}

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
  throw std::runtime_error("cannot " + what + " " + path + ": " + strerror(error));
}

file_identity identity_of(const struct stat& file) { return {file.st_uid, file.st_dev, file.st_ino}; }

std::string user(uid_t uid) { return "user " + std::to_string(uid); }

}  // namespace

bus_directory::bus_directory(std::string path)
    : m_path(std::move(path)),
      m_lock_path(m_path + lock_name),
      m_events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  enter();
}

bus_directory::~bus_directory() {
  if (holds_lock()) unlink(m_lock_path.c_str());
}

void bus_directory::enter() {
  open_directory();
  const bool is_watched = inotify_add_watch(m_events.get(), m_path.c_str(), changes) >= 0;
  const bool is_first = m_lock.get() < 0;  // later somebody polls the descriptor
  if (is_first && !is_watched) m_events = unique_fd();
  if (!holds_lock()) lock();
}

void bus_directory::open_directory() {
  mkdir(m_path.c_str(), 0777);
  struct stat file = {};
  if (lstat(m_path.c_str(), &file) != 0) fail("open", m_path, errno);
  if (S_ISLNK(file.st_mode)) refuse(m_path, "is a symbolic link, not a directory: remove it");
  if (!S_ISDIR(file.st_mode)) refuse(m_path, "is not a directory: remove it");
  if (file.st_uid == 0 || file.st_uid == geteuid()) return;
  refuse(m_path, "belongs to " + user(file.st_uid) + ", neither to root nor to " + user(geteuid()) +
                     " who runs kxcore: remove it, or change its owner");
}

bool bus_directory::holds_lock() const {
  struct stat held = {};
  struct stat standing = {};
  return m_lock.get() >= 0 && fstat(m_lock.get(), &held) == 0 && lstat(m_lock_path.c_str(), &standing) == 0 &&
         identity_of(held) == identity_of(standing);
}

// Only its owner can open the file, so that nobody else can hold the lock. An earlier core may have removed
// it in the moment before it is locked; then there is a new one.
void bus_directory::lock() {
  do {
    unique_fd file = open_lock();
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) throw std::runtime_error("another kxcore is already running on this machine");
      fail("lock", m_lock_path, errno);
    }
    m_lock = std::move(file);
  } while (!holds_lock());
}

unique_fd bus_directory::open_lock() const {
  unique_fd file(open(m_lock_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  const int error = errno;
  struct stat standing = {};
  if (lstat(m_lock_path.c_str(), &standing) == 0 && standing.st_uid != geteuid())
    refuse(m_lock_path, "is the lock of " + user(standing.st_uid) +
                            ", whose kxcore runs, or was killed: end it, or remove the file");
  if (file.get() < 0) fail("make the lock", m_lock_path, error);
  struct stat opened = {};
  if (fstat(file.get(), &opened) != 0) fail("make the lock", m_lock_path, errno);
  if (!S_ISREG(opened.st_mode) || (opened.st_mode & 077) != 0)
    refuse(m_lock_path, "is not the lock of a kxcore, others can open it: remove it");
  return file;
}

void bus_directory::check_place(const std::string& path) {
  const socket_file file(path);
  if (!file.exists()) {
    if (errno == ENOENT) return;
    if (errno == ENOTSOCK) refuse(path, "is not a socket that a kxcore has left: remove it");
    fail("look at", path, errno);
  }
  const unique_fd probe(open_datagram());
  const sockaddr_un address = file.address();
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    refuse(path, "is in use by a process that lives: another kxcore, or a component of this name");
  if (errno != ECONNREFUSED) fail("look at", path, errno);
}

bool bus_directory::has_changed() const {
  alignas(inotify_event) char events[4096];
  bool is_ours = false;
  for (ssize_t length; (length = read(m_events.get(), events, sizeof events)) > 0;) {
    for (const char* next = events; next < events + length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(next);
      is_ours |= event->len == 0 || std::strncmp(event->name, own_names, sizeof own_names - 1) == 0;
      next += sizeof *event + event->len;
    }
  }
  return is_ours;
}

own_file::own_file(std::string path) : m_path(std::move(path)) { remember(); }

void own_file::remember() {
  struct stat file = {};
  lstat(m_path.c_str(), &file);
  m_identity = identity_of(file);
}

own_file::state_e own_file::state() const {
  struct stat file = {};
  if (lstat(m_path.c_str(), &file) != 0) return ABSENT;
  return identity_of(file) == m_identity ? OWN : FOREIGN;
}
