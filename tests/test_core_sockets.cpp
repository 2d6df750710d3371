// The sockets of the core: what goes out by an outlet, what comes in by an inbox, and what lies in it.
#include <fcntl.h>
#include <sys/socket.h>

#include <csignal>
#include <fstream>
#include <map>

#include "core_probe.h"
#include "longer_queues.h"
#include "payload.h"

namespace {

constexpr char header[15] = "12345678901234";
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
  void block() { seam::fail(seam::SEND, EAGAIN, 9999); }
  void unblock() { seam::fail(seam::SEND, 0, 0); }
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
  const struct {
    int error;
    outlet::result_e result;
  } rows[] = {{EINTR, outlet::SENT},    {ECONNREFUSED, outlet::GONE}, {EPIPE, outlet::GONE},
              {ENOTCONN, outlet::GONE}, {EAGAIN, outlet::QUEUED},     {ENOBUFS, outlet::QUEUED},
              {ENOMEM, outlet::QUEUED}};
  for (const auto& row : rows) {
    out.take_queue();
    seam::fail(seam::SEND, row.error);
    EXPECT_EQ(row.result, send("a")) << strerror(row.error);
    EXPECT_EQ(row.result == outlet::QUEUED, out.has_queue()) << strerror(row.error);
  }
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

TEST_F(outlets, tell_when_the_receiver_goes_while_something_is_queued) {
  block();
  send("a");
  seam::fail(seam::SEND, ECONNREFUSED);
  EXPECT_EQ(outlet::GONE, out.flush());
  EXPECT_TRUE(out.has_queue());
}

TEST_F(outlets, give_each_sender_as_much_as_it_leaves_free_and_newcomers_one_message) {
  block();
  constexpr auto whole = static_cast<unsigned int>(outlet::max_queued / cost);
  EXPECT_EQ(whole / 2, flood(1));
  EXPECT_EQ(whole / 4, flood(2));
  EXPECT_EQ(whole / 8, flood(3));
  unsigned long last = 4;
  while (last < 9999 && send(message, last) == outlet::QUEUED)
    ++last;
  EXPECT_EQ(whole / 8, last - 4);
  EXPECT_EQ(whole / 2, flood(last, 1)) << "of another user";
  while (last < 9999 && send(message, ++last, 1) == outlet::QUEUED) {
  }
  EXPECT_EQ(outlet::FULL, send(message, 9999, 2)) << "beyond what all users may hold";
  EXPECT_EQ(7u, out.take_lost());
  EXPECT_EQ(0u, out.take_lost());
  unblock();
  for (unsigned int turns = 0; out.flush() != outlet::SENT; ++turns) {
    ASSERT_LT(turns, 9999u);
    arrived();
  }
  block();
  EXPECT_EQ(whole / 2, flood(1)) << "what was sent is still counted";
  EXPECT_EQ(whole / 2, out.take_queue().front().messages.size());
  EXPECT_EQ(whole / 2, flood(1)) << "what was given up is still counted";
}

TEST_F(outlets, give_a_sender_the_room_again_that_its_messages_had) {
  block();
  flood(1);
  seam::fail(seam::SEND, EAGAIN, 9999, 8);
  EXPECT_EQ(outlet::QUEUED, out.flush());
  EXPECT_EQ(8u, flood(1));
}

TEST_F(outlets, refuse_without_memory_and_go_on) {
  for (int fails_at = 1; seam::has_failed(seam::NEW); ++fails_at) {
    out.take_queue();
    out.take_lost();
    seam::fail(seam::SEND, EAGAIN);
    seam::fail(seam::NEW, ENOMEM, 1, fails_at - 1);
    const outlet::result_e result = send("a message");
    if (!seam::has_failed(seam::NEW)) break;
    EXPECT_EQ(outlet::FULL, result) << fails_at;
    EXPECT_EQ(1u, out.lost()) << fails_at;
    EXPECT_FALSE(out.has_queue()) << fails_at;
    EXPECT_EQ(0u, out.take_queue().size()) << fails_at;
  }
  seam::fail(seam::NEW, 0, 0);
  EXPECT_TRUE(out.has_queue());
}

TEST_F(outlets, say_why_they_cannot_connect_and_keep_no_descriptor) {
  const long before = open_descriptors();
  leave_dead_socket("/tmp/kxcore/dead");
  const struct {
    std::string path;
    int error;
  } rows[] = {{"/tmp/kxcore/absent", ENOENT},
              {"/tmp/kxcore/dead", ECONNREFUSED},
              {"/tmp/kxcore/" + std::string(95, 'x'), ENOENT},
              {"/tmp/kxcore/" + std::string(96, 'x'), ENAMETOOLONG}};
  for (const auto& row : rows) {
    errno = 0;
    const outlet none{socket_file(row.path)};
    EXPECT_EQ(row.error, errno) << row.path;
    EXPECT_FALSE(none.connected()) << row.path;
  }
  EXPECT_EQ(before, open_descriptors());
  seam::fail(seam::SOCKET, EMFILE);
  const outlet none{socket_file(receiver.path())};
  EXPECT_EQ(EMFILE, errno);
  EXPECT_FALSE(none.connected());
  unlink("/tmp/kxcore/dead");
}

TEST_F(outlets, neither_wait_nor_die) {
  EXPECT_EQ(SOCK_NONBLOCK | FD_CLOEXEC, (fcntl(out.fd(), F_GETFL) & O_NONBLOCK) | fcntl(out.fd(), F_GETFD));
  shutdown(receiver.fd(), SHUT_RD);
  EXPECT_EQ(outlet::GONE, send("a")) << "and no SIGPIPE";
}

namespace {

class inboxes : public seam_test {
 protected:
  inboxes() { inbox::ask_for_credentials(core.fd()); }
  unsigned int receive() { return in.receive(core.fd()); }

  raw_socket core{"/tmp/kxcore/core"}, peer{"/tmp/kxcore/some peer"};
  inbox in;
};

}  // namespace

TEST_F(inboxes, tell_malformed_datagrams_from_messages) {
  for (const int size : {2048, 0, 13, 14, 15, 2049}) {
    peer.send(core.path(), std::vector<unsigned char>(static_cast<std::size_t>(size), 7));
    ASSERT_EQ(1u, receive()) << size;
    EXPECT_EQ(size < 14 || size > 2048, in.is_malformed(0)) << size;
    EXPECT_EQ(std::clamp(size - 14, 0, 2034), in.message(0).size) << size;
    EXPECT_EQ(0, std::exchange(in.message(0).pos, in.message(0).size)) << size;
  }
}

TEST_F(inboxes, receive_up_to_16_datagrams_in_their_order_with_their_senders) {
  EXPECT_EQ(0u, receive());
  const raw_socket second("/tmp/kxcore/second");
  unsigned int sent = 0, total = 0;
  while (sent < 17 &&
         (sent % 2 == 0 ? peer : second)
             .send(core.path(), std::vector<unsigned char>(14, static_cast<unsigned char>(sent))))
    ++sent;
  for (unsigned int received; (received = receive()) > 0; total += received) {
    ASSERT_LE(received, inbox::batch_size);
    for (unsigned int i = 0; i < received; ++i) {
      EXPECT_EQ(total + i, in.message(i).m_header->cmd);
      EXPECT_EQ((total + i) % 2 == 0 ? peer.path() : second.path(), in.sender_of(i).path);
    }
  }
  EXPECT_EQ(sent, total);
  seam::fail(seam::RECVMMSG, EINTR);
  peer.send(core.path(), header, 14);
  EXPECT_EQ(0u, receive());
}

TEST_F(inboxes, tell_the_senders_path_process_and_user_anew_for_each_datagram) {
  const raw_socket silent("/tmp/kxcore/silent");  // asks for no credentials
  const raw_socket late("/tmp/kxcore/late");      // asks when the datagram has come
  const unique_fd unnamed(open_datagram());
  const sockaddr_un address = socket_address(core.path());
  const auto nameless = [&] {
    sendto(unnamed.get(), header, 14, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  };
  const auto afterwards = [&] { peer.send(late.path(), header, 14), inbox::ask_for_credentials(late.fd()); };
  const struct {
    std::function<void()> send;
    const raw_socket& to;
    std::string path;
    pid_t pid;
  } rows[] = {{afterwards, late, peer.path(), 0},
              {[&] { peer.send(silent.path(), header, 14); }, silent, peer.path(), 0},
              {nameless, core, "", getpid()},
              {[&] { peer.send(core.path(), header, 14); }, core, peer.path(), getpid()}};
  for (const auto& row : rows) {
    row.send();
    ASSERT_EQ(1u, in.receive(row.to.fd()));
    EXPECT_EQ(row.path, in.sender_of(0).path);
    EXPECT_EQ(row.pid, in.sender_of(0).pid) << row.path;
    EXPECT_EQ(row.pid == 0 ? sender::overflow_uid : geteuid(), in.sender_of(0).uid) << row.path;
  }
  child_process child([&] { peer.send(core.path(), header, 14); });
  const pid_t pid = child.pid();
  child.end(0);
  receive();
  EXPECT_EQ(pid, in.sender_of(0).pid) << "another process that uses the socket";
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
  std::istringstream rows(
      "07 02 00 61 00=a|07 01 00 00=|07 02 00 61 00 07=a|07 02 00 61|07 02 00|07 00 00|07 00 00 00 00||07|08 "
      "02 00 "
      "61 00|07 03 00 00 61 00|07 01 01 61 00|06 00 00 01 02#258|06 00 00 01 02 07#258|06 00 00 01|05 00 00 "
      "01 02|06");
  for (std::string row; std::getline(rows, row, '|');) {
    const auto bytes = hex(row.substr(0, row.find_first_of("=#")));
    KXmessage message;
    std::copy(bytes.begin(), bytes.end(), message.data + message.offset);
    message.incr_size(static_cast<int>(bytes.size()));
    std::string taken, text;
    unsigned int number = 0;
    if (payload(message).take(text)) taken = "=" + text;
    message.pos = 0;
    if (payload(message).take(number)) taken += "#" + std::to_string(number);
    EXPECT_EQ(row.substr(std::min(row.find_first_of("=#"), row.size())), taken) << row;
  }
}

namespace {

constexpr char setting[] = "/proc/sys/net/unix/max_dgram_qlen";

int queue_length() {
  int length = 0;
  std::ifstream(setting) >> length;
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
