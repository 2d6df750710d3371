// Components and connections whose state a test can look at, and the peers that a test plays: with raw
// sockets, or with the core in its own process.
#ifndef TESTS_PROBE_H
#define TESTS_PROBE_H

#include <poll.h>
#include <pthread.h>

#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KXclientComponent.h"
#include "KXproxy.h"
#include "KXstub.h"
#include "management.h"
#include "seam.h"

// What `work` returns, or the error that it throws.
template <typename Work>
std::string ended(const Work& work) {
  std::ostringstream text;
  try {
    text << work();
  } catch (KXerror::error_e error) {
    text << "error " << error;
  } catch (const std::bad_alloc&) {
    text << "out of memory";
  }
  return text.str();
}

// Runs `work` on a thread of its own, to its end. What it calls is armed as if this thread had called it.
void on_another_thread(const std::function<void()>& work);

// Whether another thread could lock `mutex` now.
bool is_free(pthread_mutex_t& mutex);

// Whether `work`, on a thread of its own, sleeps before its end; which `release` then lets it come to.
bool sleeps_in(const std::function<void()>& work, const std::function<void()>& release);

// Whether `work`, on a thread of its own, waits for `mutex`. This thread holds it meanwhile.
bool waits_for(pthread_mutex_t& mutex, const std::function<void()>& work);

// The base of every test that arms the seam.
class seam_test : public testing::Test {
 protected:
  seam_test() { seam::reset(); }
  void TearDown() override { seam::disarm(); }
};

// Opens the state of a component class.
template <typename Base>
class probe_of : public Base {
 public:
  using Base::Base;
  using Base::deliver, Base::set_aside;
  using Base::m_close_cb, Base::m_connections, Base::m_data_fd, Base::m_data_socket_name, Base::m_fd_handlers,
      Base::m_fda, Base::m_mgmt_fd, Base::m_mgmt_socket_name, Base::m_mutex, Base::m_nfds, Base::m_running,
      Base::m_siid_map, Base::m_timers, Base::m_waiting_queue;

  ~probe_of() override { Base::stop(); }
};

// Its receivers read and drop, ending on KILL, or do what a test has them do instead.
class bare_component : public KXcomponent {
 public:
  using KXcomponent::KXcomponent;
  void get_data_message(int fd) override { on_data ? on_data(fd) : static_cast<void>(receive(fd)); }
  void get_mgmt_message(int fd) override {
    if (on_mgmt) return on_mgmt(fd);
    if (receive(fd).m_header->cmd == CMD_KILL_COMPONENT) m_running = false;
  }

  std::function<void(int)> on_data, on_mgmt;

 private:
  KXmessage receive(int fd) {
    KXmessage message;
    peer_info_t peer;
    rec_message(fd, message, true, peer);
    return message;
  }
};

using component_probe = probe_of<bare_component>;

class client_probe : public probe_of<KXclientComponent> {
 public:
  using KXclientComponent::last_refusal, KXclientComponent::m_kxcore_data_socket_name;
  using probe_of::probe_of;

  void get_mgmt_message(int fd) override {
    if (on_mgmt) on_mgmt();
    probe_of::get_mgmt_message(fd);
  }

  std::function<void()> on_mgmt;  // before it receives
};

// A stub or proxy with open state that hands its messages to `on_message`.
template <typename Base>
class connection_probe : public Base {
 public:
  using Base::Base;
  using Base::m_interface_type, Base::m_service_name, Base::m_siid;
  using Base::process_message;

  void process_message(KXmessage& message) override {
    if (on_message) on_message(message);
  }

  // Its service, kind and siid.
  std::string state() const {
    return m_service_name + " " + std::to_string(m_interface_type) + " " + std::to_string(int(m_siid));
  }

  std::function<void(KXmessage&)> on_message;
};

using stub_probe = connection_probe<KXstub>;

class proxy_probe : public connection_probe<KXproxy> {
 public:
  using connection_probe::connection_probe;
  using KXproxy::m_mid, KXproxy::m_mid_end, KXproxy::m_mid_first, KXproxy::m_reply_interface,
      KXproxy::m_service_siid, KXproxy::m_timeout;

  // And the siid of the service, the range of ids and the last of them, and whether replies have a handler.
  std::string state() const {
    std::string text = connection_probe::state();
    for (const unsigned int number : {m_service_siid, m_mid_first, m_mid_end, m_mid})
      text += " " + std::to_string(int(number));
    return text + (m_reply_interface != nullptr ? " reply" : "");
  }
};

// A bound datagram socket outside the library.
class raw_socket {
 public:
  explicit raw_socket(const std::string& path);
  ~raw_socket();
  raw_socket(const raw_socket&) = delete;
  raw_socket& operator=(const raw_socket&) = delete;

  int fd() const { return m_fd; }
  const std::string& path() const { return m_path; }

  // One non-blocking attempt each: whether it was sent; the next datagram's bytes, empty when there is none.
  bool send(const std::string& path, const void* bytes, std::size_t size) const;
  bool send(const std::string& path, const std::vector<unsigned char>& bytes) const;
  bool send(const std::string& path, const KXmessage& message) const;
  std::vector<unsigned char> receive() const;

  // The path of the sender of what was received last.
  const std::string& sender() const { return m_sender; }

  // The next datagram as a message; false, or one with MSG_NONE, when there is none.
  bool receive(KXmessage& message) const;
  KXmessage receive_message() const;

 private:
  std::string m_path;
  mutable std::string m_sender;
  int m_fd;
};

// A message with this header.
KXmessage make_message(unsigned int dst_siid, unsigned int src_siid, msg_type_e type, unsigned char cmd,
                       unsigned int msg_id);

// The bytes of the datagram that `message` is.
std::vector<unsigned char> bytes_of(const KXmessage& message);

// "05 00 00" as bytes; bytes as " 05 00 00".
std::vector<unsigned char> hex(const std::string& text);
std::string hex(const std::vector<unsigned char>& bytes);

// A core made of raw sockets on the real paths. It works on the test's own thread, whenever the component is
// about to wait in select: each request gets the first of the replies laid ready, and none when there is none
// left.
class fake_core {
 public:
  static constexpr char mgmt_path[] = "/tmp/kxcore/kxcore";
  static constexpr char data_path[] = "/tmp/kxcore/kxcore-d";

  // Takes over the hook that the seam runs before select.
  fake_core();

  // Lays a reply ready, MSG_RSP or MSG_ERR, whose payload `fill` writes.
  void reply(msg_type_e type, std::function<void(KXmessage&)> fill = nullptr);

  // Reads what has come to the management socket and answers it.
  void serve();

  raw_socket mgmt;
  raw_socket data;
  std::vector<KXmessage> received;  // on the management socket, in order

  struct prepared {
    msg_type_e type;
    std::function<void(KXmessage&)> fill;
  };
  std::deque<prepared> replies;
};

// The base of tests of a component beside a core, at 100.5 seconds.
class core_test : public seam_test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Lets the core answer the next request with these numbers.
  void answer(msg_type_e type, const std::vector<int>& numbers = {});

  // The commands that the core was asked since the last call.
  std::string commands();

  fake_core core;
  client_probe component{"c"};
};

#endif
