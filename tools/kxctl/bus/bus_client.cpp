#include "bus_client.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "values.h"

namespace {

using time_point = bus_client::time_point;

constexpr auto nap = std::chrono::milliseconds(2);
constexpr auto leaving = std::chrono::seconds(1);

[[noreturn]] void fail_to_reach(int error, const std::string& path) {
  if (error == ENOENT) throw failure(NO_CORE, "no kxcore runs here, there is no " + path + ": start it");
  if (error == ECONNREFUSED)
    throw failure(NO_CORE, "no kxcore runs here, one has left " + path + " and ended: start it");
  if (error == EACCES)
    throw failure(NO_CORE, "not permitted to send to " + path + ": run kxctl as its owner or group");
  throw failure(NO_CORE, "cannot send to " + path + ": " + strerror(error));
}

std::string found_core() {
  std::string path = std::string(bus_client::directory) + "kxcore";
  if (const int error = probe_socket(path); error != 0) fail_to_reach(error, path);
  return path;
}

// What gives back what a command asks for.
mgmt_cmd_e opposite_of(mgmt_cmd_e cmd) {
  switch (cmd) {
    case CMD_REG_FUNCTION:
      return CMD_UNREG_FUNCTION;
    case CMD_REG_SIGNAL:
      return CMD_UNREG_SIGNAL;
    case CMD_SUB_FUNCTION:
      return CMD_UNSUB_FUNCTION;
    default:
      return CMD_UNSUB_SIGNAL;
  }
}

std::uint32_t number(const value& granted) {
  return static_cast<std::uint32_t>(std::get<std::int64_t>(granted.content));
}

// The values of the core's reply, which are to be of these types.
std::vector<value> values_of(const KXmessage& reply, const char* signature) {
  decoded_payload values = decode(reply);
  if (values.signature() != signature)
    throw failure(NO_CORE, "kxcore answers with '" + values.signature() + "' in place of '" + signature +
                               "': it and kxctl are not of one version");
  return std::move(values.values);
}

void wait_in_poll(std::vector<pollfd>& entries, time_point until) {
  const auto left = std::chrono::nanoseconds(std::max(until - steady::now(), steady::duration::zero()));
  const timespec limit = {static_cast<time_t>(left.count() / 1'000'000'000),
                          static_cast<long>(left.count() % 1'000'000'000)};
  if (ppoll(entries.data(), entries.size(), until == time_point::max() ? nullptr : &limit, nullptr) > 0)
    return;
  for (pollfd& each : entries)
    each.revents = 0;
}

}  // namespace

bus_client::bus_client(time_point until)
    : m_core_path(found_core()),
      m_name("kxctl-" + std::to_string(getpid())),
      m_mgmt(directory + m_name),
      m_data(directory + m_name + "-d") {
  KXmessage registration = make_management(MSG_REQ, CMD_REG_COMPONENT, registration_id);
  registration << m_name;
  registration << m_data.path();
  m_core_data_path =
      std::get<std::string>(values_of(request(registration, until, NO_CORE), "s").front().content);
}

bus_client::~bus_client() {
  try {
    leave();
  } catch (const failure&) {  // without the core there is nothing to leave
  }
}

void bus_client::leave() {
  const time_point until = steady::now() + leaving;
  for (const grant& each : m_grants)  // in this order: who tells of the rest is subscribed first
    notice(each.given_back_by, each.siid, until);
  KXmessage message = make_management(MSG_SIG, CMD_UNREG_COMPONENT, unregistration_id);
  message << m_name;
  send_to(m_mgmt, m_core_path, message, until);
}

// --- what the core grants ---

bus_client::proxy bus_client::subscribe(const std::string& service, bool is_signal, time_point until) {
  const mgmt_cmd_e cmd = is_signal ? CMD_SUB_SIGNAL : CMD_SUB_FUNCTION;
  KXmessage message = make_management(MSG_REQ, cmd, ++m_last_id);
  message << service;
  const std::vector<value> granted = values_of(request(message, until), "iiii");
  const proxy result = {number(granted[0]), number(granted[1]), number(granted[2]), number(granted[3]),
                        number(granted[2])};
  m_grants.push_back({opposite_of(cmd), result.siid});
  return result;
}

std::uint32_t bus_client::offer(const std::string& service, KXconnection::interface_type_e kind,
                                time_point until) {
  const mgmt_cmd_e cmd = kind == KXconnection::SGNL ? CMD_REG_SIGNAL : CMD_REG_FUNCTION;
  KXmessage message = make_management(MSG_REQ, cmd, ++m_last_id);
  for (const std::string& text : {m_name, service, std::string("none"), std::string("none")})
    message << text;
  message << static_cast<unsigned int>(kind);
  const std::uint32_t siid = number(values_of(request(message, until), "i").front());
  m_grants.push_back({opposite_of(cmd), siid});
  return siid;
}

void bus_client::give_back(const proxy& granted, time_point until) {
  const auto held = std::find_if(m_grants.begin(), m_grants.end(),
                                 [&](const grant& each) { return each.siid == granted.siid; });
  notice(held->given_back_by, held->siid, until);
  m_grants.erase(held);
}

void bus_client::notice(mgmt_cmd_e cmd, std::uint32_t siid, time_point until) {
  KXmessage message = make_management(MSG_SIG, cmd, ++m_last_id);
  message << siid;
  send_to(m_mgmt, m_core_path, message, until);
}

KXmessage bus_client::request(const KXmessage& message, time_point until, status_e refused) {
  m_awaited = *message.m_header;
  m_reply.reset();
  send_to(m_mgmt, m_core_path, message, until);
  std::vector<pollfd> nothing_else;
  while (!m_reply)
    if (!wait(nothing_else, until))
      throw failure(NO_CORE, "kxcore does not answer in time: it is stopped, or has much to do");
  if (m_reply->m_header->msg_type == MSG_ERR) throw failure(refused, reason_of(*m_reply));
  return *m_reply;
}

// --- messages ---

std::uint32_t bus_client::send(proxy& from, msg_type_e type, std::uint8_t cmd, const KXmessage& payload,
                               time_point until) {
  from.last_id = from.last_id + 1 < from.end_id ? from.last_id + 1 : from.first_id;
  KXmessage message(payload);
  message.m_header->dst_siid = htonl(from.service_siid);
  message.m_header->src_siid = htonl(from.siid);
  message.m_header->msg_type = type;
  message.m_header->cmd = cmd;
  message.m_header->msg_id = htonl(from.last_id);
  send(message, until);
  return from.last_id;
}

void bus_client::send(const KXmessage& message, time_point until) {
  send_to(m_data, m_core_data_path, message, until);
}

KXmessage bus_client::call(proxy& to, std::uint8_t cmd, const KXmessage& payload, time_point until) {
  const std::uint32_t id = send(to, MSG_REQ, cmd, payload, until);
  KXmessage answer;
  while (receive(answer, until)) {
    const msg_header_t& header = *answer.m_header;
    const bool is_answer = header.msg_type == MSG_RSP || header.msg_type == MSG_ERR;
    if (is_answer && ntohl(header.dst_siid) == to.siid && ntohl(header.msg_id) == id) return answer;
  }
  throw failure(TIMED_OUT, "no answer in time: the service is stopped, or takes longer (--timeout)");
}

bool bus_client::receive(KXmessage& message, time_point until) {
  std::vector<pollfd> entries = {data()};
  while (!take(message))
    if (!wait(entries, until)) return false;
  return true;
}

bool bus_client::take(KXmessage& message) {
  pid_t sender = 0;
  return m_data.receive(message, sender);
}

// --- waiting ---

// Beside these, whatever else there is to notice.
bool bus_client::wait(std::vector<pollfd>& entries, time_point until) {
  const std::size_t count = entries.size();
  for (const int fd : {m_signals.fd(), m_mgmt.fd(), m_core_process.get()})
    entries.push_back({fd, POLLIN, 0});
  wait_in_poll(entries, until);
  const bool is_ready =
      std::any_of(entries.begin(), entries.end(), [](const pollfd& each) { return each.revents != 0; });
  const bool has_core_ended = entries.back().revents != 0;
  entries.resize(count);
  m_signals.take();
  read_management();
  if (has_core_ended) throw failure(NO_CORE, "kxcore has ended meanwhile: start it again");
  return is_ready || steady::now() < until;
}

void bus_client::rest(time_point until) {
  std::vector<pollfd> nothing;
  while (wait(nothing, until)) {
  }
}

void bus_client::read_management() {
  KXmessage message;
  for (pid_t sender = 0; m_mgmt.receive(message, sender);) {
    const msg_header_t& header = *message.m_header;
    if (header.msg_type == MSG_SIG && header.cmd == CMD_KILL_COMPONENT)
      throw failure(NO_CORE, "kxcore tells its components to end: it stops");
    const bool is_reply = m_awaited && awaits_reply(header.cmd) && header.cmd == m_awaited->cmd &&
                          header.msg_id == m_awaited->msg_id && header.msg_type != MSG_REQ;
    if (!is_reply) continue;
    m_reply = message;
    if (sender == m_core_pid) continue;
    m_core_pid = sender;
    m_core_process = unique_fd(static_cast<int>(syscall(SYS_pidfd_open, sender, 0)));
  }
}

// A full queue is tried again and again: poll tells nothing about the socket of another.
void bus_client::send_to(const bus_socket& from, const std::string& path, const KXmessage& message,
                         time_point until) {
  for (int error; (error = from.send(path, message)) != 0;) {
    if (error != EAGAIN && error != EINTR) fail_to_reach(error, path);
    rest(std::min(until, steady::now() + nap));
    if (steady::now() >= until)
      throw failure(NO_CORE,
                    "kxcore does not read in time, its queue is full: it is stopped, or has much to do");
  }
}
