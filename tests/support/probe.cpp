#include "probe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>

#include "datagram.h"
#include "seam.h"
#include "socket_address.h"

void on_another_thread(const std::function<void()>& work) {
  std::thread([&work] {
    seam::enlist();
    work();
  }).join();
}

bool is_free(pthread_mutex_t& mutex) {
  bool locked = false;
  std::thread([&] {
    locked = pthread_mutex_trylock(&mutex) == 0;
    if (locked) pthread_mutex_unlock(&mutex);
  }).join();
  return locked;
}

bool sleeps_in(const std::function<void()>& work, const std::function<void()>& release) {
  std::atomic<long> thread{0};
  std::atomic<bool> done{false};
  std::thread other([&] {
    thread = syscall(SYS_gettid);
    work();
    done = true;
  });
  std::string state;
  while (!done && state != "S")  // number, name in parentheses, state
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat") >> state >> state >> state;
  release();
  other.join();
  return state == "S";
}

bool waits_for(pthread_mutex_t& mutex, const std::function<void()>& work) {
  pthread_mutex_lock(&mutex);
  return sleeps_in(work, [&] { pthread_mutex_unlock(&mutex); });
}

raw_socket::raw_socket(const std::string& path)
    : m_path(path), m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  unlink(path.c_str());
  const sockaddr_un address = socket_address(path);
  EXPECT_EQ(0, bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << path;
}

raw_socket::~raw_socket() {
  close(m_fd);
  unlink(m_path.c_str());
}

bool raw_socket::send(const std::string& path, const void* bytes, std::size_t size) const {
  const sockaddr_un address = socket_address(path);
  const ssize_t sent =
      sendto(m_fd, bytes, size, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent == static_cast<ssize_t>(size);
}

bool raw_socket::send(const std::string& path, const std::vector<unsigned char>& bytes) const {
  return send(path, bytes.data(), bytes.size());
}

bool raw_socket::send(const std::string& path, const KXmessage& message) const {
  return send(path, message.m_header, static_cast<std::size_t>(message.datagram_size()));
}

std::vector<unsigned char> raw_socket::receive() const {
  unsigned char bytes[2 * buffer_t::capacity];
  sockaddr_un address = {};
  socklen_t length = sizeof address;
  const ssize_t count =
      recvfrom(m_fd, bytes, sizeof bytes, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address), &length);
  if (count <= 0) return {};
  m_sender = sender_path(address, length).text;
  return {bytes, bytes + count};
}

bool raw_socket::receive(KXmessage& message) const {
  const std::vector<unsigned char> bytes = receive();
  if (bytes.size() < header_size) return false;
  message = message_of(bytes.data(), bytes.size());
  return true;
}

KXmessage raw_socket::receive_message() const {
  KXmessage message;
  receive(message);
  return message;
}

KXmessage make_message(unsigned int dst_siid, unsigned int src_siid, msg_type_e type, unsigned char cmd,
                       unsigned int msg_id) {
  KXmessage message;
  message.m_header->dst_siid = htonl(dst_siid);
  message.m_header->src_siid = htonl(src_siid);
  message.m_header->msg_type = type;
  message.m_header->cmd = cmd;
  message.m_header->msg_id = htonl(msg_id);
  return message;
}

std::vector<unsigned char> bytes_of(const KXmessage& message) {
  const auto* begin = reinterpret_cast<const unsigned char*>(message.m_header);
  return {begin, begin + message.datagram_size()};
}

std::vector<unsigned char> hex(const std::string& text) {
  std::vector<unsigned char> bytes;
  std::istringstream words(text);
  for (std::string word; words >> word;)
    bytes.push_back(static_cast<unsigned char>(std::stoul(word, nullptr, 16)));
  return bytes;
}

std::string hex(const std::vector<unsigned char>& bytes) {
  std::ostringstream text;
  for (const unsigned int byte : bytes)
    text << std::hex << std::uppercase << std::setfill('0') << ' ' << std::setw(2) << byte;
  return text.str();
}

fake_core::fake_core() : mgmt(mgmt_path), data(data_path) {
  seam::before(seam::SELECT, [this] { serve(); });
}

void fake_core::reply(msg_type_e type, std::function<void(KXmessage&)> fill) {
  replies.push_back({type, std::move(fill)});
}

void fake_core::serve() {
  for (KXmessage request; mgmt.receive(request);) {
    received.push_back(request);
    if (request.m_header->msg_type != MSG_REQ || replies.empty()) continue;
    KXmessage answer = request;
    answer.size = 0;
    answer.m_header->msg_type = replies.front().type;
    if (replies.front().fill) replies.front().fill(answer);
    replies.pop_front();
    mgmt.send(mgmt.sender(), answer);
  }
}

void core_test::SetUp() {
  seam::fake_clock(100.5);
  seam::before(seam::SELECT, [this] { core.serve(); });
  component.m_kxcore_data_socket_name = fake_core::data_path;
}

void core_test::TearDown() {
  component.stop();
  seam_test::TearDown();
}

void core_test::answer(msg_type_e type, const std::vector<int>& numbers) {
  core.reply(type, [numbers](KXmessage& reply) {
    for (const int number : numbers)
      reply << number;
  });
}

std::string core_test::commands() {
  core.serve();
  std::string numbers;
  for (const KXmessage& each : core.received)
    numbers += " " + std::to_string(each.m_header->cmd);
  core.received.clear();
  return numbers;
}
