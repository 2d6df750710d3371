// Checks of this machine.
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/vfs.h>

#include <linux/magic.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "bus_socket.h"
#include "checks.h"
#include "printable.h"

namespace {

constexpr long few_descriptors = 64;  // of 16 components
constexpr int long_queue = 100;
constexpr unsigned int everybody_may_write = 0002;

std::string octal(unsigned int mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", mode & 07777U);
  return text;
}

bool is_tmpfs(const std::string& path) {
  struct statfs system = {};
  return statfs(path.c_str(), &system) == 0 && system.f_type == TMPFS_MAGIC;
}

std::string listed(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& each : names)
    text += (text.empty() ? "" : ", ") + printable(each);
  return text;
}

long descriptor_limit(const std::string& process) {
  std::ifstream limits(process + "/limits");
  for (std::string line; std::getline(limits, line);) {
    long limit = 0;
    if (std::sscanf(line.c_str(), "Max open files %ld", &limit) == 1) return limit;
  }
  return -1;
}

}  // namespace

void check_kernel(findings& found) {
  utsname system = {};
  uname(&system);
  int major = 0;
  int minor = 0;
  std::sscanf(system.release, "%d.%d", &major, &minor);
  if (major > 5 || (major == 5 && minor >= 3)) return;
  found.push_back({finding::WARN, std::string("the kernel ") + system.release + " has no pidfd_open",
                   "the end of a component without a goodbye is noticed late: 5.3 or newer has it"});
}

void check_directory(const std::string& path, findings& found) {
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0)
    return found.push_back({finding::FAIL, path + ": " + strerror(errno), "start kxcore, which makes it"});
  const std::string text = path + " is of uid " + std::to_string(file.st_uid) + ", gid " +
                           std::to_string(file.st_gid) + ", mode " + octal(file.st_mode);
  const bool is_open = (file.st_mode & everybody_may_write) != 0 && (file.st_mode & S_ISVTX) == 0;
  if (!S_ISDIR(file.st_mode))
    found.push_back({finding::FAIL, path + " is not a directory", "remove it, and start kxcore"});
  else if (is_open)
    found.push_back({finding::WARN, text + ": everybody may remove the sockets of others",
                     "chmod +t " + path + ", or let only a group write (protection.md)"});
  else
    found.push_back({finding::OK, text, ""});
  if (!is_tmpfs(path))
    found.push_back({finding::WARN, path + " is not on a tmpfs: sockets survive a restart of the machine",
                     "mount one there, or on /tmp (porting.md)"});
}

void check_stale_sockets(const std::string& path, findings& found) {
  std::set<std::string> stale;
  std::error_code error;
  namespace fs = std::filesystem;
  for (fs::recursive_directory_iterator each(path, fs::directory_options::skip_permission_denied, error), end;
       !error && each != end; each.increment(error))
    if (each->is_socket(error) && probe_socket(each->path()) == ECONNREFUSED) stale.insert(each->path());
  if (stale.empty()) return found.push_back({finding::OK, "no socket file is without a process", ""});
  found.push_back({finding::WARN, "socket files without a process: " + listed(stale),
                   "their programs were killed: remove the files, or start them again"});
}

void check_queue_length(const std::string& setting, findings& found) {
  int length = 0;
  if (!(std::ifstream(setting) >> length)) return;
  const std::string text = "net.unix.max_dgram_qlen is " + std::to_string(length);
  if (length >= long_queue) return found.push_back({finding::OK, text, ""});
  found.push_back(
      {finding::WARN,
       text + ": the socket of a component holds " + std::to_string(length + 1) + " unread messages",
       "sysctl -w net.unix.max_dgram_qlen=16384, before the components start (porting.md)"});
}

// Two sockets have had the same path: who bound it later has taken it away from a process that lives, unless
// that one sees another directory there.
void check_names(const std::string& sockets, findings& found) {
  std::ifstream table(sockets);
  std::map<std::string, int> bound;
  for (std::string line; std::getline(table, line);) {
    const std::size_t begin = line.find(bus_client::directory);
    const bool is_datagram = line.find(" 0002 ") < begin;  // what monitors connect to is none
    if (begin != std::string::npos && is_datagram) ++bound[line.substr(begin)];
  }
  std::set<std::string> twice;
  for (const auto& [path, count] : bound)
    if (count > 1) twice.insert(path);
  if (twice.empty()) return found.push_back({finding::OK, "no two programs have one name", ""});
  found.push_back(
      {finding::WARN, "two programs have one name: " + listed(twice),
       "unless a container has a bus of its own there, the earlier one gets nothing any more: end it, "
       "and give each a name of its own"});
}

void check_descriptors(const std::string& process, findings& found) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(process + "/fd", error);
  const long limit = descriptor_limit(process);
  if (error || limit < 0)
    return found.push_back(
        {finding::WARN, "the descriptors of kxcore cannot be counted", "run kxctl as its user"});
  const long left = limit - std::distance(begin(entries), end(entries));
  const std::string text =
      "kxcore has " + std::to_string(left) + " of " + std::to_string(limit) + " descriptors left";
  if (left >= few_descriptors) return found.push_back({finding::OK, text, ""});
  found.push_back({finding::WARN, text + ", a component takes 4", "raise its hard limit (LimitNOFILE=)"});
}
