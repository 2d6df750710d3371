// The core's place in the file system, and what it does when others take it.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fstream>

#include "core_probe.h"

namespace {

namespace fs = std::filesystem;

const std::string place = "/tmp/kxcore/place", lock_file = place + "/.kxcore.lock";

template <typename Work>
std::string reason_of(const Work& work) {
  try {
    work();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

std::string enter() {
  return reason_of([] { bus_directory{place}; });
}

void write_file(const std::string& path, mode_t mode) {
  std::ofstream(path) << "content";
  chmod(path.c_str(), mode);
}

class places : public seam_test {
 protected:
  ~places() override { fs::remove_all(place); }
};

// What may stand at `path`, from /tmp/kxcore/elsewhere where it is a link.
void put(const std::string& what, const std::string& path) {
  if (what == "file") write_file(path, 0644);
  if (what == "private file") write_file(path, 0600);
  if (what == "fifo") mkfifo(path.c_str(), 0600);
  if (what == "directory") fs::create_directory(path);
  if (what == "link") fs::create_directory_symlink("/tmp/kxcore/elsewhere", path);
}

}  // namespace

TEST_F(places, are_taken_where_nothing_or_a_directory_stands_and_given_back) {
  for (const char* const what : {"nothing", "directory"}) {
    put(what, place);
    {
      const bus_directory taken(place);
      struct stat lock = {};
      lstat(lock_file.c_str(), &lock);
      EXPECT_EQ(S_IFREG | 0600u, lock.st_mode) << what;
      EXPECT_EQ("another kxcore is already running on this machine", enter()) << what;
    }
    EXPECT_EQ("", enter()) << what;
    EXPECT_FALSE(fs::exists(lock_file)) << what;
    EXPECT_EQ(0, rmdir(place.c_str())) << what;
  }
}

TEST_F(places, that_others_may_have_made_are_refused_and_left_as_they_are) {
  fs::create_directory("/tmp/kxcore/elsewhere");
  const struct {
    const char* what;
    std::string where;
    std::string reason;
  } rows[] = {{"link", place, " is a symbolic link, not a directory: remove it"},
              {"file", place, " is not a directory: remove it"},
              {"file", lock_file, " is not the lock of a kxcore, "},
              {"fifo", lock_file, " is not the lock of a kxcore, "},
              {"link", lock_file, "cannot make the lock "},
              {"directory", lock_file, "cannot make the lock "}};
  for (const auto& row : rows) {
    if (row.where != place) fs::create_directory(place);
    put(row.what, row.where);
    const auto before = fs::symlink_status(row.where);
    EXPECT_NE(std::string::npos, enter().find(row.reason)) << row.what << ": " << enter();
    EXPECT_NE(std::string::npos, enter().find(row.where)) << row.what;
    EXPECT_EQ(before.type(), fs::symlink_status(row.where).type()) << row.what << " is touched";
    EXPECT_TRUE(fs::is_empty("/tmp/kxcore/elsewhere")) << row.what << " is followed";
    fs::remove_all(place);
  }
  fs::remove_all("/tmp/kxcore/elsewhere");
}

TEST_F(places, of_another_user_are_refused_unless_it_is_root) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  fs::create_directory(place);
  EXPECT_EQ(0, chown(place.c_str(), 12345, 0));
  EXPECT_EQ(place +
                " belongs to user 12345, neither to root nor to user 0 who runs kxcore: remove it, or "
                "change its owner",
            enter());
  EXPECT_EQ(0, chown(place.c_str(), 0, 0));
  write_file(lock_file, 0600);
  EXPECT_EQ(0, chown(lock_file.c_str(), 12345, 0));
  EXPECT_EQ(
      lock_file + " is the lock of user 12345, whose kxcore runs, or was killed: end it, or remove the file",
      enter());
  fs::remove(lock_file);
  child_process stranger([] {
    const bool is_plain =
        setuid(12345) == 0 && enter() == "cannot make the lock " + lock_file + ": Permission denied";
    _exit(is_plain ? 7 : 1);
  });
  EXPECT_EQ(7, stranger.end(0)) << "the reason is another one's";
  EXPECT_EQ(0, chmod(place.c_str(), 0777));
  child_process user([] { _exit(setuid(12345) == 0 && enter().empty() ? 7 : 1); });
  EXPECT_EQ(7, user.end(0)) << "root's directory serves all";
  write_file(lock_file, 0600);
  child_process other([] {
    const std::string of_root =
        " is the lock of user 0, whose kxcore runs, or was killed: end it, or remove the file";
    _exit(setuid(12345) == 0 && enter() == lock_file + of_root ? 7 : 1);
  });
  EXPECT_EQ(7, other.end(0));
}

TEST_F(places, are_locked_by_the_file_that_stands_there) {
  bool first = true;
  seam::before(seam::FLOCK, [&first] {
    if (std::exchange(first, false)) fs::remove(lock_file);  // by an earlier core that ends
  });
  {
    const bus_directory taken(place);
    EXPECT_TRUE(fs::exists(lock_file));
    fs::rename(lock_file, place + "/moved");
    write_file(lock_file, 0600);
  }
  EXPECT_TRUE(fs::exists(lock_file)) << "the lock of another is removed";
  seam::fail(seam::FLOCK, ENOLCK);
  EXPECT_EQ("cannot lock " + lock_file + ": No locks available", enter());
}

TEST_F(places, tell_what_happens_to_them_and_to_the_cores_files) {
  bus_directory taken(place);
  const struct {
    const char* what;
    std::function<void()> act;
    bool is_ours;
  } rows[] = {
      {"nothing", [] {}, false},
      {"a file of another is made", [] { write_file(place + "/component", 0600); }, false},
      {"two are made", [] { write_file(place + "/kxcore", 0600), write_file(place + "/x", 0600); }, true},
      {"one of its own is renamed", [] { fs::rename(place + "/kxcore", place + "/y"); }, true},
      {"one becomes its own", [] { fs::rename(place + "/y", place + "/kxcore-d"); }, true},
      {"one of its own is removed", [] { fs::remove(place + "/kxcore-d"); }, true},
      {"the directory is moved", [] { fs::rename(place, place + "-moved"); }, true},
      {"it is entered again", [&] { taken.enter(); }, false},
      {"a file is made there", [] { write_file(place + "/kxcore", 0600); }, true},
      {"the directory is removed", [] { fs::remove_all(place); }, true}};
  for (const auto& row : rows) {
    taken.has_changed();
    row.act();
    pollfd entry = {taken.fd(), POLLIN, 0};
    EXPECT_EQ(row.is_ours, taken.has_changed()) << row.what;
    EXPECT_EQ(0, poll(&entry, 1, 0)) << row.what << " is told again";
  }
  fs::remove_all(place + "-moved");
}

TEST_F(places, of_sockets_are_free_or_left_by_the_dead) {
  fs::create_directory(place);
  const std::string path = place + "/kxcore", dead = place + "/dead";
  leave_dead_socket(dead.c_str());
  const auto check = [&path] { return reason_of([&path] { bus_directory::check_place(path); }); };
  EXPECT_EQ("", check()) << "nothing is there";
  fs::create_hard_link(dead, path);
  EXPECT_EQ("", check()) << "a dead socket is there";
  fs::remove(path);
  fs::create_symlink(dead, path);
  EXPECT_EQ(path + " is not a socket that a kxcore has left: remove it", check()) << "a link";
  fs::remove(path);
  write_file(path, 0600);
  EXPECT_EQ(path + " is not a socket that a kxcore has left: remove it", check()) << "a file";
  EXPECT_EQ("cannot look at " + path + "/x: Not a directory",
            reason_of([&] { bus_directory::check_place(path + "/x"); }));
  const raw_socket living(path);
  EXPECT_EQ(path + " is in use by a process that lives: another kxcore, or a component of this name",
            check());
  seam::fail(seam::CONNECT, EPERM);
  EXPECT_EQ("cannot look at " + path + ": Operation not permitted", check());
}

TEST_F(places, of_own_files_tell_whose_file_stands_there) {
  fs::create_directory(place);
  const std::string path = place + "/file";
  write_file(path, 0600);
  own_file file(path);
  EXPECT_EQ(own_file::OWN, file.state());
  fs::rename(path, place + "/kept");
  EXPECT_EQ(own_file::ABSENT, file.state());
  write_file(path, 0600);
  EXPECT_EQ(own_file::FOREIGN, file.state());
  file.remember();
  EXPECT_EQ(own_file::OWN, file.state());
  fs::rename(place + "/kept", path);
  EXPECT_EQ(own_file::FOREIGN, file.state());
}

TEST_F(whole_core, makes_the_files_of_its_sockets_again) {
  for (const std::string which : {"m", "d", "md"}) {
    seam::clear_lines();
    if (which.front() == 'm') unlink(fake_core::mgmt_path);
    if (which.back() == 'd') unlink(fake_core::data_path);
    subject.serve();
    EXPECT_EQ(1,
              seam::times_logged("the files of its sockets in /tmp/kxcore/ were removed: it has made them"));
    play(
        "other registers; client REQ get client.get 3 > server = REQ 3");  // who are known by their processes
  }
  for (const int fd : {subject.m_mgmt_fd, subject.m_data_fd})
    EXPECT_EQ(O_NONBLOCK | FD_CLOEXEC, (fcntl(fd, F_GETFL) & O_NONBLOCK) | fcntl(fd, F_GETFD));
}

TEST_F(whole_core, makes_its_sockets_again_with_long_queues) {
  if (!longer_queues().refusal().empty()) GTEST_SKIP() << "the system permits no network namespaces";
  unlink(fake_core::mgmt_path), unlink(fake_core::data_path);
  subject.serve();
  for (const char* const path : {fake_core::mgmt_path, fake_core::data_path}) {
    int room = 0;
    while (room < 100 && at("stranger").data.send(path, std::vector<unsigned char>(1)))
      ++room;
    EXPECT_EQ(100, room) << path;
    subject.serve();
  }
}

TEST_F(whole_core, serves_what_came_before_its_files_were_removed) {
  const sockaddr_un core = socket_address(fake_core::mgmt_path);
  raw_component& other = at("other");
  EXPECT_EQ(0, connect(other.mgmt.fd(), reinterpret_cast<const sockaddr*>(&core), sizeof core));
  unlink(fake_core::mgmt_path);
  at("client").data.send(fake_core::data_path, make_message(1, 1, MSG_SIG, 5, 3));
  bool first = true;
  seam::before(seam::RECVMMSG, [&] {  // when the other socket has been served
    const auto request = bytes_of(other.make(CMD_SUB_FUNCTION, "get", 0));
    if (std::exchange(first, false)) send(other.mgmt.fd(), request.data(), request.size(), 0);
  });
  subject.serve();
  EXPECT_TRUE(seam::logged("other subscribed to function 'get'"));
}

TEST_F(whole_core, carries_the_data_that_came_before_its_files_were_removed) {
  const sockaddr_un core = socket_address(fake_core::data_path);
  const raw_socket& sender = at("client").data;
  EXPECT_EQ(0, connect(sender.fd(), reinterpret_cast<const sockaddr*>(&core), sizeof core));
  unlink(fake_core::data_path);
  at("stranger").manage(CMD_SUB_FUNCTION, "get", 0);
  bool first = true;
  seam::before(seam::RECVMMSG, [&] {  // when the data socket has been found empty
    const auto message =
        bytes_of(make_message(unsigned(number("get")), unsigned(number("client.get")), MSG_SIG, 5, 3));
    if (std::exchange(first, false)) send(sender.fd(), message.data(), message.size(), 0);
  });
  subject.serve();
  play("server > server = SIG 3");
}

TEST_F(places, that_it_cannot_have_again_end_the_core_and_are_left_alone) {
  const std::string mgmt = fake_core::mgmt_path, data = fake_core::data_path;
  const struct {
    std::string lost;
    std::function<void()> act;
    std::string reason;
    bool is_left;
  } rows[] = {
      {mgmt, [&] { leave_dead_socket(mgmt.c_str()); }, mgmt + " is not the core's own any more: ", true},
      {data, [&] { leave_dead_socket(data.c_str()); }, data + " is not the core's own any more: ", true},
      {mgmt, [] { unlink("/tmp/kxcore/.kxcore.lock"), write_file("/tmp/kxcore/.kxcore.lock", 0644); },
       "/tmp/kxcore/.kxcore.lock is not the lock", false}};
  for (const auto& row : rows) {
    core_probe subject;
    subject.m_running = true;
    unlink(row.lost.c_str());
    row.act();
    subject.serve();
    EXPECT_TRUE(seam::logged("the files of its sockets are gone, it ends: " + row.reason)) << row.lost;
    EXPECT_FALSE(subject.m_running) << row.lost;
    EXPECT_TRUE(subject.has_failed()) << row.lost;
    subject.stop();
    EXPECT_EQ(row.is_left, fs::exists(row.lost)) << row.lost;
    EXPECT_FALSE(fs::exists(row.lost == mgmt ? data : mgmt)) << row.lost;
    unlink(row.lost.c_str());
    unlink("/tmp/kxcore/.kxcore.lock");
  }
}
