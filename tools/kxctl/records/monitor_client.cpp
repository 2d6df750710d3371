#include "monitor_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KXmessage.h"
#include "entry.h"
#include "socket_address.h"

namespace {

constexpr char monitor_path[] = "/tmp/kxcore/.kxcore/monitor";
constexpr char core_path[] = "/tmp/kxcore/kxcore";
constexpr std::size_t batch = 32;
constexpr std::size_t record_room = 8192;  // more than any has
constexpr auto drain_time = std::chrono::seconds(1);
constexpr int rest_ms = 1;  // so that the core need not wake a monitor for each record
constexpr auto mark_pause = std::chrono::milliseconds(50);  // then the core is asked again

[[noreturn]] void fail_to_connect(int error) {
  const bool has_core = access(core_path, F_OK) == 0;
  if (error == EACCES || error == EPERM)
    throw failure(NO_CORE,
                  "you may not see the traffic of others: root may, the user who runs kxcore, and with "
                  "`kxcore --monitor-group GROUP` that group");
  if (error == ENOENT && has_core)
    throw failure(NO_INTROSPECTION,
                  "this core shows no traffic: " + std::string(monitor_path) + " is missing");
  if (error == ENOENT || error == ECONNREFUSED)
    throw failure(NO_CORE, "no kxcore runs here: start one, or see `kxctl doctor`");
  if (error == EAGAIN) throw failure(NO_CORE, "kxcore does not answer");
  throw failure(NO_CORE, std::string(monitor_path) + ": " + strerror(error));
}

// Milliseconds for poll, rounded up: it is never too early.
int pause_until(steady::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 3'600'000));
}

}  // namespace

monitor_client::monitor_client(const std::string& components, const std::string& services,
                               steady::time_point answer_by)
    : m_room(batch * record_room) {
  connect_by(answer_by);
  greet(components, services);
  pollfd answer[] = {{m_socket.get(), POLLIN, 0}, {m_stop.fd(), POLLIN, 0}};
  while (poll(answer, 2, pause_until(answer_by)) <= 0)
    if (steady::now() >= answer_by) throw failure(NO_CORE, "kxcore does not answer");
  if (answer[1].revents != 0) throw failure(INTERRUPTED, "");
}

void monitor_client::connect_by(steady::time_point answer_by) {
  m_socket = unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const long pause_ms = std::max(pause_until(answer_by), 1);
  timeval pause = {};
  pause.tv_sec = pause_ms / 1000;
  pause.tv_usec = pause_ms % 1000 * 1000;
  setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &pause, sizeof pause);
  const sockaddr_un address = socket_address(monitor_path);
  if (connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    fail_to_connect(errno);
}

void monitor_client::greet(const std::string& components, const std::string& services) {
  KXmessage hello;
  hello << static_cast<unsigned int>(record_version);
  hello << components;
  hello << services;
  send(m_socket.get(), hello.data + hello.offset, static_cast<std::size_t>(hello.size), MSG_NOSIGNAL);
}

monitor_client::end_e monitor_client::watch(const take_t& take, const std::function<void()>& caught_up,
                                            steady::time_point until) {
  for (;;) {
    pollfd ready[] = {{m_socket.get(), POLLIN, 0}, {m_stop.fd(), POLLIN, 0}, {m_pipe, 0, 0}};
    poll(ready, 3, pause_until(until));
    if (ready[1].revents != 0) return STOPPED;
    if ((ready[2].revents & POLLERR) != 0) throw failure(DONE, "");
    if (steady::now() >= until) return TIME_OVER;
    const received_e got = receive(take);
    caught_up();
    if (got == CORE_ENDED && m_is_first)
      throw failure(REFUSED, "kxcore lets no monitor in: it has as many as it takes, or ends");
    if (got == CORE_ENDED) return ENDED;
    if (got == UNWANTED) return ENOUGH;
    if (got == NOTHING_MORE) poll(&ready[1], 1, rest_ms);
  }
}

void monitor_client::drain(const take_t& take) {
  bool is_marked = false;
  const take_t take_until_mark = [&](std::string_view record) {
    const std::optional<entry> parsed = entry::parse(record);
    is_marked = is_marked || (parsed && parsed->head.event == RECORD_MARK);
    return take(record);
  };
  const auto end = steady::now() + drain_time;
  while (!is_marked && steady::now() < end) {
    // A mark that finds no room is lost, as any record.
    send(m_socket.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    pollfd ready = {m_socket.get(), POLLIN, 0};
    poll(&ready, 1, static_cast<int>(mark_pause.count()));
    received_e got = RECEIVED;
    while (got == RECEIVED && !is_marked && steady::now() < end)
      got = receive(take_until_mark);
    if (got == UNWANTED || got == CORE_ENDED) return;
  }
}

// What is there, at most a batch of it.
monitor_client::received_e monitor_client::receive(const take_t& take) {
  mmsghdr messages[batch] = {};
  iovec parts[batch];
  for (std::size_t i = 0; i < batch; ++i) {
    parts[i] = {m_room.data() + i * record_room, record_room};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int count = recvmmsg(m_socket.get(), messages, batch, MSG_DONTWAIT, nullptr);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return NOTHING_MORE;
  if (count <= 0) return CORE_ENDED;
  for (int i = 0; i < count; ++i) {
    if (messages[i].msg_len == 0) return CORE_ENDED;  // no record is empty
    if (!hand_on({static_cast<const char*>(parts[i].iov_base), messages[i].msg_len}, take)) return UNWANTED;
  }
  return count == static_cast<int>(batch) ? RECEIVED : NOTHING_MORE;
}

// The state of the bus comes first, unless the core refuses.
bool monitor_client::hand_on(std::string_view record, const take_t& take) {
  const std::optional<entry> first = m_is_first ? entry::parse(record) : std::nullopt;
  m_is_first = false;
  if (first && first->head.event == RECORD_REFUSED)
    throw failure(REFUSED, "kxcore refuses a monitor: " + std::string(first->head.reason));
  return take(record);
}
