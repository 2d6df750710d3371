// The sockets of the core: what goes out by an outlet, what comes in by an inbox, and what lies in it.
#include <fcntl.h>
#include <sys/socket.h>

#include <csignal>
#include <fstream>

#include "core_probe.h"
#include "datagram.h"
#include "payload.h"

namespace {

constexpr std::size_t cost = 1024;  // of each message in a queue
const std::string message(cost - outlet::cost_beside_bytes, 'x');

class outlets : public seam_test {
 protected:
  outlet::result_e send(const std::string& text, unsigned long sender = 1, uid_t user = 0) {
    return out.send(text.data(), text.size(), sender, user);
  }
  // Sends until one is refused; how many were not.
  unsigned int flood(unsigned long sender, uid_t user = 0) {
    unsigned int taken = 0;
    while (send(message, sender, user) == outlet::QUEUED && taken < 9999)
      ++taken;
    return taken;
  }
  // One message of each of so many senders; how many were not refused.
  unsigned long flood_by_many(unsigned long first, uid_t user) {
    unsigned long sender = first;
    while (send(message, sender, user) == outlet::QUEUED && sender < 9999)
      ++sender;
    return sender - first;
  }
  void block() { seam::fail(seam::SEND, EAGAIN, 9999); }
  std::string arrived() const {
    std::string text;
    for (auto bytes = receiver.receive(); !bytes.empty(); bytes = receiver.receive())
      text.append(bytes.begin(), bytes.end()) += " ";
    return text;
  }

  raw_socket receiver{"/tmp/kxcore/receiver"};
  outlet out{socket_file(receiver.path())};
};

}  // namespace

TEST_F(outlets, tell_by_the_error_of_the_system_what_became_of_a_message) {
  const std::vector<std::pair<int, outlet::result_e>> rows = {
      {EAGAIN, outlet::QUEUED},  {EINTR, outlet::SENT},    {ECONNREFUSED, outlet::GONE},
      {EPIPE, outlet::GONE},     {ENOTCONN, outlet::GONE}, {EAGAIN, outlet::QUEUED},
      {ENOBUFS, outlet::QUEUED}, {ENOMEM, outlet::QUEUED}};
  for (const auto& [error, result] : rows) {
    out.take_queue();
    seam::fail(seam::SEND, error);
    EXPECT_EQ(result, send("a")) << strerror(error);
    EXPECT_EQ(result == outlet::QUEUED, out.has_queue()) << strerror(error);
  }
  seam::fail(seam::SEND, ECONNREFUSED);
  EXPECT_EQ(outlet::GONE, out.flush());
}

TEST_F(outlets, send_what_is_queued_in_the_turns_of_the_senders_and_in_the_order_of_each) {
  block();
  for (const char* const text : {"a1", "a2", "a3", "b1", "c1", "b2"})
    EXPECT_EQ(outlet::QUEUED, send(text, static_cast<unsigned long>(text[0])));
  seam::fail(seam::SEND, EAGAIN, 1, 2);
  EXPECT_EQ(outlet::QUEUED, out.flush());
  EXPECT_EQ("a1 b1 ", arrived());
  EXPECT_EQ(outlet::QUEUED, send("a4", 'a')) << "it overtakes";
  EXPECT_EQ(outlet::SENT, out.flush());
  EXPECT_EQ("c1 a2 b2 a3 a4 ", arrived());
  EXPECT_EQ(outlet::SENT, send("a5"));
}

TEST_F(outlets, give_each_sender_as_much_as_it_leaves_free_and_newcomers_one_message) {
  block();
  constexpr auto whole = static_cast<unsigned int>(outlet::max_queued / cost);
  for (const unsigned int part : {2, 4, 8})
    EXPECT_EQ(whole / part, flood(part));
  EXPECT_EQ(whole / 8, flood_by_many(100, 0));
  EXPECT_EQ(whole / 2, flood(1, 1)) << "of another user";
  flood_by_many(1000, 1);
  EXPECT_EQ(outlet::FULL, send(message, 9999, 2)) << "beyond what all users may hold";
  EXPECT_EQ(7u, out.take_lost());
  EXPECT_EQ(0u, out.take_lost());
  for (seam::fail(seam::SEND, 0, 0); out.flush() != outlet::SENT;)
    arrived();
  block();
  EXPECT_EQ(whole / 2, flood(1)) << "what was sent is still counted";
  arrived();
  seam::fail(seam::SEND, EAGAIN, 9999, 8);
  out.flush();
  EXPECT_EQ(8u, flood(1)) << "a sender has not the room again that its messages had";
  EXPECT_EQ(whole / 2, out.take_queue().front().messages.size());
  EXPECT_EQ(whole / 2, flood(1)) << "what was given up is still counted";
}

TEST_F(outlets, refuse_without_memory_and_go_on) {
  without_memory([this](int fails_at) {
    seam::fail(seam::SEND, EAGAIN);
    if (send("a message") == outlet::QUEUED) return;
    EXPECT_EQ(1u, out.take_lost()) << fails_at;
    EXPECT_EQ(0u, out.take_queue().size()) << fails_at;
  });
  EXPECT_TRUE(out.has_queue());
}

TEST_F(outlets, say_why_they_cannot_connect_and_keep_no_descriptor) {
  const long before = open_descriptors();
  leave_dead_socket("/tmp/kxcore/dead");
  const std::vector<std::pair<std::string, int>> rows = {{"absent", ENOENT},
                                                         {"dead", ECONNREFUSED},
                                                         {std::string(95, 'x'), ENOENT},
                                                         {std::string(96, 'x'), ENAMETOOLONG},
                                                         {"receiver", EMFILE}};
  for (const auto& [name, error] : rows) {
    if (error == EMFILE) seam::fail(seam::SOCKET, EMFILE);
    const outlet none{socket_file("/tmp/kxcore/" + name)};
    EXPECT_EQ(error, errno) << name;
    EXPECT_FALSE(none.connected()) << name;
  }
  EXPECT_EQ(before, open_descriptors());
  unlink("/tmp/kxcore/dead");
}

TEST_F(outlets, do_not_wait_and_are_not_inherited) {
  const auto inherited = [] {
    int count = 0;
    for (int fd = 0; fd < 99; ++fd)
      count += fcntl(fd, F_GETFD) == 0 ? 1 : 0;
    return count;
  };
  const int before = inherited();
  const socket_file file(receiver.path());
  const outlet another(file);
  EXPECT_EQ(before, inherited());
  EXPECT_EQ(O_NONBLOCK, fcntl(another.fd(), F_GETFL) & O_NONBLOCK);
}

namespace {

class inboxes : public seam_test {
 protected:
  inboxes() { inbox::ask_for_credentials(core.fd()); }
  unsigned int receive() { return in.receive(core.fd()); }
  static bool send(const raw_socket& from, const raw_socket& to, std::size_t size = 14,
                   unsigned char cmd = 7) {
    return from.send(to.path(), std::vector<unsigned char>(size, cmd));
  }

  raw_socket core{"/tmp/kxcore/core"}, peer{"/tmp/kxcore/some peer"};
  inbox in;
};

}  // namespace

TEST_F(inboxes, tell_malformed_datagrams_from_messages) {
  for (const int size : {2048, 0, 13, 14, 15, 2049}) {
    send(peer, core, static_cast<std::size_t>(size));
    ASSERT_EQ(1u, receive()) << size;
    EXPECT_EQ(size < 14 || size > 2048, in.is_malformed(0)) << size;
    EXPECT_EQ(std::clamp(size - 14, 0, 2034), in.message(0).size) << size;
    EXPECT_EQ(in.message(0).size,
              message_of(std::vector<char>(2049).data(), static_cast<std::size_t>(size)).size);
    EXPECT_EQ(0, std::exchange(in.message(0).pos, in.message(0).size)) << size;
  }
}

TEST_F(inboxes, receive_up_to_16_datagrams_in_their_order_with_their_senders) {
  const raw_socket second("/tmp/kxcore/second"), longest("/tmp/kxcore/" + std::string(95, 'x'));
  const std::vector<const raw_socket*> senders = {&peer, &second, &longest};
  unsigned int sent = 0, total = 0;
  while (sent < 17 && send(*senders[sent % 3], core, 14, static_cast<unsigned char>(sent)))
    ++sent;
  for (unsigned int received; (received = receive()) > 0; total += received) {
    ASSERT_LE(received, inbox::batch_size);
    for (unsigned int i = 0; i < received; ++i) {
      EXPECT_EQ(total + i, in.message(i).m_header->cmd);
      EXPECT_EQ(senders[(total + i) % 3]->path(), in.sender_of(i).path);
    }
  }
  EXPECT_EQ(sent, total);
  seam::fail(seam::RECVMMSG, EINTR);
  send(peer, core);
  EXPECT_EQ(0u, receive());
}

TEST_F(inboxes, tell_the_senders_path_process_and_user_anew_for_each_datagram) {
  const raw_socket silent("/tmp/kxcore/silent");  // asks for no credentials
  const raw_socket late("/tmp/kxcore/late");      // asks when the datagram has come
  const unique_fd unnamed(open_datagram());
  const sockaddr_un address = socket_address(core.path());
  const struct {
    std::function<void()> send;
    const raw_socket& to;
    std::string path;
    pid_t pid;
  } rows[] = {
      {[&] { send(peer, late), inbox::ask_for_credentials(late.fd()); }, late, peer.path(), 0},
      {[&] { send(peer, silent); }, silent, peer.path(), 0},
      {[&] { sendto(unnamed.get(), "", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address); },
       core, "", getpid()},
      {[&] { send(peer, core); }, core, peer.path(), getpid()}};
  for (const auto& row : rows) {
    row.send();
    ASSERT_EQ(1u, in.receive(row.to.fd()));
    EXPECT_EQ(row.path, in.sender_of(0).path);
    EXPECT_EQ(row.pid, in.sender_of(0).pid) << row.path;
    EXPECT_EQ(row.pid == 0 ? sender::overflow_uid : geteuid(), in.sender_of(0).uid) << row.path;
  }
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  chmod(core.path().c_str(), 0777);
  child_process other([&] { _exit(setgid(54321) == 0 && setuid(12345) == 0 && send(peer, core) ? 0 : 1); });
  const pid_t pid = other.pid();
  EXPECT_EQ(0, other.end(0));
  receive();
  EXPECT_EQ(pid, in.sender_of(0).pid) << "another process that uses the socket";
  EXPECT_EQ(12345u, in.sender_of(0).uid);
}

TEST_F(inboxes, take_no_descriptors) {
  if (std::string(KXCORE_COMMAND).find('|') != std::string::npos)
    GTEST_SKIP() << "an emulator takes more control data than it hands on";
  int passed[16] = {};
  iovec part = {passed, 14};
  union {
    cmsghdr first;
    char bytes[CMSG_SPACE(sizeof passed)];
  } control = {};
  control.first = {CMSG_LEN(sizeof passed), SOL_SOCKET, SCM_RIGHTS};
  memcpy(CMSG_DATA(&control.first), passed, sizeof passed);
  sockaddr_un address = socket_address(core.path());
  msghdr message_header = {&address, sizeof address, &part, 1, &control, sizeof control, 0};
  const long before = open_descriptors();
  ASSERT_EQ(14, sendmsg(peer.fd(), &message_header, 0));
  ASSERT_EQ(1u, receive());
  EXPECT_EQ(before, open_descriptors());
  EXPECT_EQ(getpid(), in.sender_of(0).pid);
}

TEST(payloads, are_taken_only_when_tag_and_value_are_there) {
  const std::vector<std::pair<std::string, std::string>> rows = {{"07 02 00 61 00", "'a'"},
                                                                 {"07 01 00 00", "''"},
                                                                 {"07 02 00 61 00 07", "'a'"},
                                                                 {"07 02 00 61", ""},
                                                                 {"07 02 00", ""},
                                                                 {"07 00 00", ""},
                                                                 {"07 00 00 00 00", ""},
                                                                 {"", ""},
                                                                 {"08 02 00 61 00", ""},
                                                                 {"07 03 00 00 61 00", ""},
                                                                 {"07 01 01 61 00", ""},
                                                                 {"06 00 00 01 02", "258"},
                                                                 {"06 00 00 01 02 07", "258"},
                                                                 {"06 00 00 01", ""},
                                                                 {"05 00 00 01 02", ""},
                                                                 {"06", ""},
                                                                 {"07 01 00 00 06 00 00 01 02", "''258"},
                                                                 {"07 01 00 00 06 00 00 01", "''"}};
  for (const auto& [bytes, expected] : rows) {
    const auto sent = hex("0 0 0 0 0 0 0 0 0 0 0 0 0 0 " + bytes);
    const KXmessage received = message_of(sent.data(), sent.size());
    std::string text, taken;
    unsigned int number = 0;
    payload values(received);
    if (values.take(text)) taken = "'" + text + "'";
    if (values.take(number)) taken += std::to_string(number);
    EXPECT_EQ(expected, taken) << bytes;
  }
}

namespace {

int queue_length() {
  int length = 0;
  std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> length;
  return length;
}

}  // namespace

TEST(longer_queues, are_those_of_a_network_of_their_own) {
  const int before = queue_length();
  {
    const longer_queues queues;
    EXPECT_EQ(queues.refusal().empty(), queue_length() >= socket_queue) << queues.refusal();
  }
  EXPECT_EQ(before, queue_length()) << "a setting of the system is changed, or the network not left";
}

TEST(longer_queues, are_not_needed_for_the_sockets_to_be_created) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give its rights up";
  if (queue_length() >= socket_queue) GTEST_SKIP() << "the system's queues are as long";
  child_process powerless([] {
    if (setuid(12345) != 0) _exit(1);
    const longer_queues queues;
    _exit(queues.refusal().rfind("cannot enter a network namespace of their own: ", 0) == 0 ? 7 : 2);
  });
  EXPECT_EQ(7, powerless.end(0));
}
