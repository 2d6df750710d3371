// The core's place in the file system, and what it does when others take it.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fstream>

#include "core_probe.h"

namespace {

namespace fs = std::filesystem;

const std::string place = "/tmp/kxcore/place", lock_file = place + "/.kxcore.lock", own = place + "/kxcore";

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

// Makes what may stand at a path; a link leads to /tmp/kxcore/elsewhere.
void put(const std::string& what, const std::string& path = own) {
  if (what == "file" || what == "private file") std::ofstream(path) << "content";
  if (what == "file") chmod(path.c_str(), 0640);
  if (what == "private file") chmod(path.c_str(), 0600);
  if (what == "fifo") mkfifo(path.c_str(), 0600);
  if (what == "directory") fs::create_directory(path);
  if (what == "link") fs::create_symlink("/tmp/kxcore/elsewhere", path);
}

class places : public seam_test {
 protected:
  ~places() override { fs::remove_all(place); }
};

// As the user 12345, who may not do what root does.
std::string reason_of_another_user() {
  const raw_socket answers("/tmp/kxcore/answers");
  chmod(answers.path().c_str(), 0777);
  child_process([&answers] {
    const std::string reason = setuid(12345) == 0 ? enter() : "it stays root";
    answers.send(answers.path(), reason.data(), reason.size());
  }).end(0);
  const auto bytes = answers.receive();
  return {bytes.begin(), bytes.end()};
}

}  // namespace

TEST_F(places, are_taken_where_nothing_or_a_directory_stands_and_given_back) {
  for (const char* const what : {"nothing", "directory"}) {
    put(what, place);
    {
      const bus_directory taken(place);
      EXPECT_EQ(fs::perms(0600), fs::status(lock_file).permissions()) << what;
      EXPECT_EQ("another kxcore is already running on this machine", enter()) << what;
    }
    EXPECT_EQ("", enter()) << what;
    EXPECT_FALSE(fs::exists(lock_file)) << what;
    EXPECT_EQ(0, rmdir(place.c_str())) << what;
  }
}

TEST_F(places, that_others_may_have_made_are_refused_and_left_as_they_are) {
  fs::create_directory("/tmp/kxcore/elsewhere");
  const std::string no_lock = " is not the lock of a kxcore, others can open it: remove it",
                    no_file = "cannot make the lock " + lock_file + ": ";
  const struct {
    const char* what;
    std::string where;
    std::string reason;
  } rows[] = {{"link", place, place + " is a symbolic link, not a directory: remove it"},
              {"file", place, place + " is not a directory: remove it"},
              {"file", lock_file, lock_file + no_lock},
              {"fifo", lock_file, lock_file + no_lock},
              {"link", lock_file, no_file + "Too many levels of symbolic links"},
              {"directory", lock_file, no_file + "Is a directory"}};
  for (const auto& row : rows) {
    if (row.where != place) fs::create_directory(place);
    put(row.what, row.where);
    const auto before = fs::symlink_status(row.where);
    EXPECT_EQ(row.reason, enter());
    EXPECT_EQ(before.type(), fs::symlink_status(row.where).type()) << row.what << " is touched";
    EXPECT_TRUE(fs::is_empty("/tmp/kxcore/elsewhere")) << row.what << " is followed";
    fs::remove_all(place);
  }
  fs::remove_all("/tmp/kxcore/elsewhere");
}

TEST_F(places, of_another_user_are_refused_unless_it_is_root) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  const std::string end = ", whose kxcore runs, or was killed: end it, or remove the file";
  fs::create_directory(place);
  EXPECT_EQ("cannot make the lock " + lock_file + ": Permission denied", reason_of_another_user());
  EXPECT_EQ(0, chmod(place.c_str(), 0777));
  EXPECT_EQ("", reason_of_another_user()) << "root's directory serves all";
  put("private file", lock_file);
  EXPECT_EQ(lock_file + " is the lock of user 0" + end, reason_of_another_user());
  EXPECT_EQ(0, chown(lock_file.c_str(), 12345, 0));
  EXPECT_EQ(lock_file + " is the lock of user 12345" + end, enter());
  EXPECT_EQ(0, chown(place.c_str(), 12345, 0));
  EXPECT_EQ(place +
                " belongs to user 12345, neither to root nor to user 0 who runs kxcore: remove it, or change "
                "its owner",
            enter());
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
    put("private file", lock_file);
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
  } rows[] = {{"nothing", [] {}, false},
              {"a file of another is made", [] { put("file", place + "/component"); }, false},
              {"two are made", [] { put("file"), put("file", place + "/x"); }, true},
              {"one of its own is renamed", [] { fs::rename(own, place + "/y"); }, true},
              {"one becomes its own", [] { fs::rename(place + "/y", own + "-d"); }, true},
              {"one of its own is removed", [] { fs::remove(own + "-d"); }, true},
              {"another of another is made", [] { put("file", place + "/other"); }, false},
              {"the directory is moved", [] { fs::rename(place, place + "-moved"); }, true},
              {"it is entered again", [&] { taken.enter(); }, false},
              {"a file is made there", [] { put("file"); }, true},
              {"it is removed", [] { fs::remove_all(place); }, true}};
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
  leave_dead_socket("/tmp/kxcore/elsewhere");
  const std::string no_socket = own + " is not a socket that a kxcore has left: remove it";
  const struct {
    const char* what;
    std::function<void()> act;
    std::string reason;
  } rows[] = {{"nothing", [] {}, ""},
              {"a dead socket", [] { fs::create_hard_link("/tmp/kxcore/elsewhere", own); }, ""},
              {"a link to one", [] { put("link"); }, no_socket},
              {"a file", [] { put("file"); }, no_socket}};
  for (const auto& row : rows) {
    fs::remove(own);
    row.act();
    EXPECT_EQ(row.reason, reason_of([] { bus_directory::check_place(own); })) << row.what;
  }
  EXPECT_EQ("cannot look at " + own + "/x: Not a directory",
            reason_of([] { bus_directory::check_place(own + "/x"); }));
  const raw_socket living(own);
  EXPECT_EQ(own + " is in use by a process that lives: another kxcore, or a component of this name",
            reason_of([] { bus_directory::check_place(own); }));
  seam::fail(seam::CONNECT, EPERM);
  EXPECT_EQ("cannot look at " + own + ": Operation not permitted",
            reason_of([] { bus_directory::check_place(own); }));
  fs::remove("/tmp/kxcore/elsewhere");
}

TEST_F(whole_core, makes_the_files_of_its_sockets_again) {
  for (const std::string which : {"m", "d", "md"}) {
    if (which.front() == 'm') unlink(fake_core::mgmt_path);
    if (which.back() == 'd') unlink(fake_core::data_path);
    play(
        R"(forget; serve
        lines the files of its sockets in /tmp/kxcore/ were removed: it has made them again = 1
            other registers; client REQ get client.get 3 > server = REQ 3)");  // who are known by their
                                                                               // processes
  }
  for (const int fd : {subject.m_mgmt_fd, subject.m_data_fd})
    EXPECT_EQ(O_NONBLOCK | FD_CLOEXEC, (fcntl(fd, F_GETFL) & O_NONBLOCK) | fcntl(fd, F_GETFD));
}

TEST_F(whole_core, makes_its_sockets_again_with_long_queues_and_empties_those_before) {
  if (!longer_queues().refusal().empty()) GTEST_SKIP() << "the system permits no network namespaces";
  const std::string mgmt = fake_core::mgmt_path, data = fake_core::data_path;
  for (const std::string& path : {mgmt, mgmt, data, data}) {
    int sent = 0;
    for (int senders = 0; senders < 8; ++senders)  // as much as the send buffers hold
      for (const raw_socket each("/tmp/kxcore/flooder"); each.send(path, std::vector<unsigned char>(1));)
        ++sent;
    EXPECT_LT(1200, sent);
    at("other").manage(CMD_SUB_FUNCTION, "get");
    at("client").data.send(fake_core::data_path,
                           make_message((*this)["get"], (*this)["client.get"], MSG_SIG, 5, 3));
    unlink(path.c_str());
    play(
        "forget; serve; lines other subscribed to function 'get' = 1; > server = SIG 3; lines made them "
        "again = 1");
  }
}

// The one socket loses its file, and gets something from who is connected to it when the other has been
// served.
TEST_F(whole_core, serves_what_came_before_its_files_were_removed) {
  const struct {
    const char* lost;
    const raw_socket& from;
    std::vector<unsigned char> sent;
  } rows[] = {
      {fake_core::mgmt_path, at("other").mgmt, bytes_of(at("other").make(CMD_SUB_FUNCTION, "get", 0))},
      {fake_core::data_path, at("client").data,
       bytes_of(make_message((*this)["get"], (*this)["client.get"], MSG_SIG, 5, 3))}};
  for (const auto& row : rows) {
    const sockaddr_un core = socket_address(row.lost);
    EXPECT_EQ(0, connect(row.from.fd(), reinterpret_cast<const sockaddr*>(&core), sizeof core));
    unlink(row.lost);
    at("stranger").manage(CMD_SUB_FUNCTION, "get"), at("stranger").data.send(fake_core::data_path, row.sent);
    bool first = true;
    seam::before(seam::RECVMMSG, [&] {
      if (std::exchange(first, false)) send(row.from.fd(), row.sent.data(), row.sent.size(), 0);
    });
    subject.serve();
  }
  play("lines other subscribed to function 'get' = 1; > server = SIG 3");
}

TEST_F(whole_core, goes_on_when_its_directory_cannot_be_watched_a_second_time) {
  for (const int lines : {1, 2}) {
    seam::fail(seam::INOTIFY_ADD_WATCH, ENOSPC);
    unlink(fake_core::mgmt_path);
    play("serve; other registers; lines it has made them again = " + std::to_string(lines));
  }
}

TEST_F(places, that_cannot_be_watched_are_told) {
  seam::fail(seam::INOTIFY_ADD_WATCH, ENOSPC);
  core_probe subject;
  EXPECT_TRUE(
      seam::logged("it cannot watch /tmp/kxcore/: the end of its sockets' files would not be noticed"));
  for (int i = 0; i < subject.m_nfds; ++i)
    EXPECT_LE(0, subject.m_fda[i].fd);
}

TEST_F(places, that_it_cannot_have_again_end_the_core_and_are_left_alone) {
  const std::string mgmt = fake_core::mgmt_path, data = fake_core::data_path,
                    lock = "/tmp/kxcore/.kxcore.lock";
  const struct {
    std::string lost;
    std::function<void()> act;
    std::string reason;
    bool is_left;
  } rows[] = {
      {mgmt, [&] { leave_dead_socket(mgmt.c_str()); }, mgmt + " is not the core's own any more: ", true},
      {data, [&] { leave_dead_socket(data.c_str()); }, data + " is not the core's own any more: ", true},
      {mgmt, [&] { fs::remove(lock), put("file", lock); }, lock + " is not the lock", false}};
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
    fs::remove(row.lost), fs::remove(lock);
  }
}
