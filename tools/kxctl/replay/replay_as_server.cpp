// Stands in for a component of which there is a recording.
#include <arpa/inet.h>

#include <deque>

#include "printable.h"
#include "replay/replay.h"
#include "standard_output.h"

namespace {

using time_point = bus_client::time_point;

steady::duration scaled(std::uint64_t ns, double rate) {
  if (rate <= 0) return {};
  return std::chrono::duration_cast<steady::duration>(
      std::chrono::duration<double, std::nano>(static_cast<double>(ns) / rate));
}

// The answers to equal requests are given in their order, the last of them again and again.
class script {
 public:
  explicit script(const std::vector<recorded_call>& calls) {
    for (const recorded_call& each : calls)
      if (each.answer) m_answers[{each.cmd, each.payload}].push_back(&*each.answer);
  }

  const recorded_answer* next(std::uint8_t cmd, const std::string& payload) {
    const auto found = m_answers.find({cmd, payload});
    if (found == m_answers.end()) return nullptr;
    const recorded_answer* const answer = found->second.front();
    if (found->second.size() > 1) found->second.pop_front();
    return answer;
  }

 private:
  std::map<std::pair<std::uint8_t, std::string>, std::deque<const recorded_answer*>> m_answers;
};

class server {
 public:
  server(const options& given, const replay_options& what, const recorded_calls& recorded)
      : m_given(given), m_what(what), m_script(recorded.calls()), m_bus(given.deadline()) {}

  void answer(time_point until) {
    m_siid = m_bus.offer(m_what.service, KXconnection::SYNC, m_given.deadline());
    for (unsigned long served = 0; m_given.count == 0 || served < m_given.count;) {
      KXmessage request;
      if (!m_bus.receive(request, until)) throw failure(TIMED_OUT, "");
      if (ntohl(request.m_header->dst_siid) != m_siid) continue;
      serve(request);
      ++served;
    }
  }

  void send_signals(const std::vector<recorded_call>& signals, time_point until) {
    m_siid = m_bus.offer(m_what.service, KXconnection::SGNL, m_given.deadline());
    const auto begin = steady::now();
    unsigned long sent = 0;
    for (const recorded_call& each : signals) {
      const auto due = begin + scaled(each.time_ns - signals.front().time_ns, m_what.rate);
      if (due > until) throw failure(TIMED_OUT, "");
      m_bus.rest(due);
      KXmessage signal = message_with(each.payload);
      address(signal, m_siid, MSG_SIG, each.cmd, 0);
      m_bus.send(signal, m_given.deadline());
      tell(each.cmd, each.payload, "sent");
      if (++sent == m_given.count) return;
    }
  }

 private:
  void serve(const KXmessage& request) {
    const msg_header_t& asked = *request.m_header;
    if (asked.msg_type != MSG_REQ) return;
    const auto* const bytes = reinterpret_cast<const char*>(request.data + request.offset);
    const std::string payload(bytes, static_cast<std::size_t>(request.size));
    const recorded_answer* const answer = m_script.next(asked.cmd, payload);
    if (answer != nullptr) m_bus.rest(steady::now() + scaled(answer->took_ns, m_what.rate));
    KXmessage reply = answer == nullptr ? KXmessage() : message_with(answer->payload);
    if (answer == nullptr) reply << "the recording has no answer to this request";
    address(reply, ntohl(asked.src_siid), answer == nullptr ? MSG_ERR : static_cast<msg_type_e>(answer->type),
            asked.cmd, ntohl(asked.msg_id));
    m_bus.send(reply, m_given.deadline());
    tell(asked.cmd, payload,
         std::string(msg_type_name(reply.m_header->msg_type)) + " " + decode(reply).text());
    if (answer == nullptr && m_what.expect)
      throw failure(REFUSED, "a request that is not in the recording: cmd " + std::to_string(asked.cmd) +
                                 " " + decode(payload).text());
  }

  void address(KXmessage& message, std::uint32_t to, msg_type_e type, std::uint8_t cmd,
               std::uint32_t id) const {
    message.m_header->dst_siid = htonl(to);
    message.m_header->src_siid = htonl(m_siid);
    message.m_header->msg_type = type;
    message.m_header->cmd = cmd;
    message.m_header->msg_id = htonl(id);
  }

  void tell(std::uint8_t cmd, const std::string& payload, const std::string& outcome) const {
    if (m_given.json)
      return write_out(dump({{"cmd", cmd}, {"request", decode(payload).json()}, {"result", outcome}}) + "\n");
    write_out("cmd " + std::to_string(cmd) + " " + decode(payload).text() + "  " + outcome + "\n");
  }

  const options& m_given;
  const replay_options& m_what;
  script m_script;
  bus_client m_bus;
  std::uint32_t m_siid = 0;
};

}  // namespace

void replay_as_server(const options& given, const replay_options& what, const recorded_calls& recorded,
                      time_point until) {
  if (recorded.calls().empty() && recorded.signals().empty())
    throw failure(REFUSED, what.file + " holds no message of '" + printable(what.service) + "'");
  server stand_in(given, what, recorded);
  if (recorded.calls().empty()) return stand_in.send_signals(recorded.signals(), until);
  stand_in.answer(until);
}
