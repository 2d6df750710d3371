// Stands in for a service: a command answers its requests.
#include <list>
#include <sstream>

#include "command_run.h"
#include "printable.h"
#include "standard_output.h"
#include "values.h"
#include "verbs/verbs.h"

namespace {

using time_point = bus_client::time_point;
using words = command_run::words;

constexpr std::size_t longest_reason = 2000;  // of a string in a message

// A value as an argument of a command: strings as they are, bytes in hex.
std::string argument_of(const value& of) {
  if (const auto* text = std::get_if<std::string>(&of.content)) return *text;
  if (std::holds_alternative<value::bytes>(of.content)) return of.json()["hex"];
  return of.text();
}

words arguments_of(const words& command, const decoded_payload& request) {
  words all = command;
  for (const value& each : request.values)
    all.push_back(argument_of(each));
  return all;
}

std::string without_last_newline(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// What a command has written, as the words of values: one string, or a line for each.
words values_in(const std::string& output, const std::string& signature) {
  if (signature == "s") return {without_last_newline(output)};
  words lines;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);)
    lines.push_back(line);
  return lines;
}

class server {
 public:
  server(const options& given, const serve_options& what)
      : m_given(given),
        m_what(what),
        m_client(given.deadline()),
        m_siid(m_client.offer(what.service, KXconnection::SYNC, given.deadline())) {}

  void run(time_point until) {
    for (;;) {
      answer_ended();
      if (m_given.count > 0 && m_served == m_given.count) return;
      take_requests();
      std::vector<pollfd> entries;
      if (has_room()) entries.push_back(m_client.data());
      for (const job& each : m_jobs)
        each.run.add_to(entries);
      if (!m_client.wait(entries, until)) throw failure(TIMED_OUT, "");
    }
  }

 private:
  struct job {
    job(const KXmessage& asked, const words& command, const words& variables)
        : request(asked), run(command, variables) {}

    const KXmessage request;
    command_run run;
  };

  bool has_room() const {
    return m_jobs.size() < m_what.jobs && (m_given.count == 0 || m_served + m_jobs.size() < m_given.count);
  }

  void take_requests() {
    for (KXmessage request; has_room() && m_client.take(request);)
      if (ntohl(request.m_header->dst_siid) == m_siid) start(request);
  }

  void start(const KXmessage& request) {
    const decoded_payload values = decode(request);
    for (const value& each : values.values)
      if (argument_of(each).find('\0') != std::string::npos)
        return refuse(request, "a value with a NUL cannot be an argument of a command");
    if (!values.rest.empty()) return refuse(request, "the payload does not parse");
    m_jobs.emplace_back(
        request, arguments_of(m_what.command, values),
        words{"KX_CMD=" + std::to_string(request.m_header->cmd), "KX_SIGNATURE=" + values.signature()});
  }

  void answer_ended() {
    for (auto each = m_jobs.begin(); each != m_jobs.end();) {
      const auto ended = each++;
      if (!ended->run.has_ended()) continue;
      answer(ended->request, ended->run);
      m_jobs.erase(ended);
    }
  }

  void answer(const KXmessage& request, const command_run& run) {
    if (!run.is_done_well()) return refuse(request, without_last_newline(run.problem()));
    KXmessage reply;
    const std::string problem = encode(m_what.signature, values_in(run.output(), m_what.signature), reply);
    if (!problem.empty()) return refuse(request, "the command's output is no answer: " + problem);
    finish(request, reply, MSG_RSP);
  }

  void refuse(const KXmessage& request, const std::string& reason) {
    KXmessage reply;
    reply << reason.substr(0, longest_reason);
    finish(request, reply, MSG_ERR);
  }

  // Sends the answer, if one is awaited, and shows what was served.
  void finish(const KXmessage& request, KXmessage& reply, msg_type_e type) {
    const msg_header_t& asked = *request.m_header;
    reply.m_header->dst_siid = asked.src_siid;
    reply.m_header->src_siid = asked.dst_siid;
    reply.m_header->msg_type = type;
    reply.m_header->cmd = asked.cmd;
    reply.m_header->msg_id = asked.msg_id;
    if (asked.msg_type == MSG_REQ) m_client.send(reply, m_given.deadline());
    ++m_served;
    if (m_given.json)
      return write_out(dump({{"request", json_of(request)}, {"answer", json_of(reply)}}) + "\n");
    write_out(printable(m_what.service) + ":" + std::to_string(asked.cmd) + " " + text_of(request) + " -> " +
              msg_type_name(type) + " " + text_of(reply) + "\n");
  }

  const options& m_given;
  const serve_options& m_what;
  bus_client m_client;
  const std::uint32_t m_siid;
  std::list<job> m_jobs;
  unsigned long m_served = 0;
};

}  // namespace

void serve(const options& given, const serve_options& what, time_point until) {
  server(given, what).run(until);
}
