#include <sys/resource.h>

#include <tuple>

#include "component_test.h"

class datagrams : public component {
 protected:
  int receive(int fd) { return c.rec_message(fd, message, true, peer); }
  int send(const std::string& path) { return c.send_message_to(c.m_data_fd, path.c_str(), message); }
  // What a receive has left in message and peer.
  ints left() const { return {message.size, message.pos, static_cast<int>(peer.addrlen), peer.rx_len}; }

  raw_socket other{"/tmp/kxcore/other"};
  peer_info_t peer;
};

TEST_F(datagrams, are_offered_three_times_a_second_apart) {
  for (const int error : {EAGAIN, EINTR, 0}) {  // 0: fewer bytes were sent
    for (int failures = 0; failures <= 3; ++failures) {
      reset();
      fake_clock(10);
      fail(SENDTO, error, failures);
      EXPECT_EQ(failures < 3 ? 14 : -1, send(other.path())) << failures;
      EXPECT_EQ(10 + std::min(failures, 2), now()) << failures;
      EXPECT_EQ(std::min(failures + 1, 3), count(SENDTO)) << failures;
    }
  }
}

TEST_F(datagrams, do_not_wait_for_room_on_a_socket_that_blocks) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  for (int sent = 14; sent > 0;)
    sent = c.send_message_to(fd, other.path().c_str(), message);
  EXPECT_EQ(102, now());
  close(fd);
}

TEST_F(datagrams, wait_a_second_whatever_signals_cut_short_and_without_a_clock) {
  const int timer = dup(c.m_data_fd);
  close(timer);
  for (const double after : {0.0, 0.01, 0.5, 0.9}) {
    fake_clock(100);
    fail(SENDTO, EAGAIN), fail(SLEEP, EINTR), fail(READ, EINTR, 2);
    before(SLEEP, [&] {
      EXPECT_EQ(FD_CLOEXEC, fcntl(timer, F_GETFD));
      advance(after);
    });
    EXPECT_EQ(14, send(other.path()));
    EXPECT_EQ(101, now()) << after;
  }
  EXPECT_EQ(0, count(CLOCK_GETTIME));
}

TEST_F(datagrams, are_not_offered_to_or_from_where_no_socket_can_be) {
  const std::string longest(107, 'x'), too_long(108, 'x');
  const std::tuple<int, std::string, int> rows[] = {
      {c.m_data_fd, longest, 3}, {c.m_data_fd, too_long, 0}, {0, other.path(), 0}, {-1, other.path(), 0}};
  for (const auto& [fd, path, attempts] : rows) {
    const int earlier = count(SENDTO);
    EXPECT_EQ(-1, c.send_message_to(fd, path.c_str(), message)) << fd;
    EXPECT_EQ(attempts, count(SENDTO) - earlier) << path;
  }
}

TEST_F(datagrams, are_waited_for_ten_seconds_however_often_that_fails_or_without_limit) {
  message.size = message.pos = peer.rx_len = 3;
  for (const int fd : {c.m_data_fd, other.fd()}) {
    for (const int error : {EINTR, EBADF}) {
      fake_clock(100);
      fail(SELECT, error, 2);
      EXPECT_EQ(0, receive(fd));
      EXPECT_EQ(110, now());
      EXPECT_EQ((ints{3, 3, 110, 3}), left());
    }
  }
  send(c.m_mgmt_socket_name);
  EXPECT_EQ(17, c.rec_message(c.m_mgmt_fd, message, false, peer));
  EXPECT_EQ("10 6 2 10 10 10 10 6 2 10 10 10 -1 ", given(SELECT));
  EXPECT_EQ(8, times_logged("[WARNING] ") - times_logged("Receive message timeout"));
}

TEST_F(datagrams, are_received_whole_into_a_message_that_was_used_before) {
  for (const int sent : {0, 13, 14, 20, 2048, 2049}) {
    const int length = std::min(sent, 2048);
    std::vector<unsigned char> bytes = bytes_of(make_message(0x01020304, 0x05060708, MSG_RSP, 9, 0x0A0B0C0D));
    bytes.resize(static_cast<std::size_t>(sent), 0xAB);
    EXPECT_TRUE(other.send(c.m_data_socket_name, bytes));
    message.size = message.pos = 7;
    peer.addrlen = 0;
    EXPECT_EQ(length, receive(c.m_data_fd));
    EXPECT_EQ((ints{std::max(length - 14, 0), 0, 20, length}), left());
    EXPECT_TRUE(std::equal(message.data, message.data + length, bytes.begin())) << length;
    EXPECT_EQ(other.path(), peer.addr.sun_path);
  }
  EXPECT_EQ(6, times_logged("Received message from /tmp/kxcore/other"));
  EXPECT_FALSE(logged("incr_size"));
}

TEST_F(datagrams, are_received_within_the_storage_where_the_header_is_not_at_its_start) {
  KXmessage whole;
  whole.size = 2034;
  c.send_message_to(c.m_data_fd, c.m_data_socket_name.c_str(), whole);
  message.offset += 100;
  message = KXmessage(message);
  EXPECT_EQ(1948, receive(c.m_data_fd));
}

TEST_F(datagrams, show_no_sender_that_is_not_theirs) {
  const std::string filled(108, 'p');
  for (const auto& [name, shown] : {std::pair{std::string(), std::string()},
                                    {std::string(108, '\0'), ""},
                                    {"u", "u"},
                                    {filled, filled}}) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path);
    const auto length = static_cast<socklen_t>(2 + name.size());
    EXPECT_EQ(0, name.empty() ? 0 : bind(fd, reinterpret_cast<sockaddr*>(&address), length)) << name;
    c.send_message_to(fd, c.m_data_socket_name.c_str(), message);
    close(fd), remove(name.c_str()), clear_lines();
    EXPECT_EQ(14, receive(c.m_data_fd));
    EXPECT_TRUE(logged("Received message from " + shown + " (id=6)")) << shown;
  }
}

TEST_F(datagrams, that_cannot_be_read_leave_an_empty_payload_and_no_sender) {
  send(c.m_data_socket_name), send(c.m_data_socket_name);
  EXPECT_EQ(14, receive(c.m_data_fd));
  message.size = message.pos = 7;
  fail(RECVFROM, EAGAIN);
  EXPECT_EQ(-1, receive(c.m_data_fd));
  EXPECT_EQ((ints{0, 0, 110, -1}), left());
  EXPECT_TRUE(logged("Received message from  (id=6)"));
}

// A handler has closed it; the wait fails, or finds something on the descriptor that has its number by now.
TEST_F(datagrams, are_not_waited_for_on_a_socket_that_stop_has_closed) {
  send(c.m_data_socket_name);
  for (const bool data : {true, false}) {
    for (const bool is_taken : {true, false}) {
      component_probe own("own", nullptr);
      const int fd = data ? own.m_data_fd : own.m_mgmt_fd;
      before(SELECT, [&] {
        own.stop();
        if (is_taken) dup2(c.m_data_fd, fd);
      });
      fail(SELECT, EBADF, is_taken ? 0 : 9);
      EXPECT_EQ(-1, own.rec_message(fd, message, true, peer));
      EXPECT_EQ(0, count(RECVFROM)) << data << is_taken;
      if (is_taken) close(fd);
      EXPECT_EQ(-1, own.rec_message(is_taken ? -1 : fd, message, true, peer)) << "closed before";
    }
  }
}

TEST_F(datagrams, are_not_waited_for_any_more_by_another_thread_when_stop_closes_the_socket) {
  fake_clock(-1);
  const auto wait = [&, fd = c.m_mgmt_fd] { EXPECT_EQ(-1, c.rec_message(fd, message, false, peer)); };
  EXPECT_TRUE(sleeps_in(wait, [&] { c.stop(); }));
}

TEST_F(datagrams, are_waited_for_on_descriptors_that_select_has_no_room_for) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 8);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  for (const int fd : {FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 7}) {
    ASSERT_EQ(fd, dup2(c.m_data_fd, fd));
    fake_clock(3595);  // the limit passes at the wrap of the stamps
    fail(fd < FD_SETSIZE ? SELECT : POLL, EINTR, 2);
    EXPECT_EQ(0, receive(fd)) << fd;
    EXPECT_EQ(3605, now()) << fd;
    when_idle([&] { advance(99), send(c.m_data_socket_name), when_idle(nullptr); });
    EXPECT_EQ(14, c.rec_message(fd, message, false, peer)) << fd;
    EXPECT_EQ(fd < FD_SETSIZE, given(POLL).find("-1 ") == std::string::npos);
    fail(POLL, EINTR, fd < FD_SETSIZE ? 0 : 1);
    before(POLL, [&] { advance(11); });  // more than is left
    EXPECT_EQ(0, receive(fd)) << fd;
    before(POLL, nullptr);
    close(fd);
  }
}

TEST_F(datagrams, name_a_peer_by_a_path_that_fits) {
  EXPECT_EQ((ints{110, AF_UNIX}), (ints{int(peer.addrlen), peer.addr.sun_family}));
  peer.addrlen = 7, peer.addr.sun_family = AF_INET;
  std::string fits(107, 'x'), exceeds(108, 'y');
  EXPECT_EQ((ints{0, -1}), (ints{peer.path(fits), peer.path(exceeds)}));
  EXPECT_EQ(fits, peer.addr.sun_path);
  EXPECT_EQ((ints{7, AF_INET}), (ints{int(peer.addrlen), peer.addr.sun_family})) << "it sets the path alone";
}

TEST_F(datagrams, are_traced_with_what_their_header_holds) {
  for (const auto& [source, shown] : {std::pair{1u, "X : [INTERCONNECT]->[INTERCONNECT] : unknown : unknown"},
                                      {7u, "X : [7]->[9] : unknown : 12"}}) {
    message = make_message(9, source, static_cast<msg_type_e>(5), 12, 6);
    send(c.m_data_socket_name), receive(c.m_data_fd);
    EXPECT_EQ(2, times_logged(shown)) << "sent, and received";
  }
}
