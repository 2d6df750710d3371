// Sends the recorded requests again.
#include <cstdio>
#include <iostream>

#include "core_services.h"
#include "printable.h"
#include "replay/comparison.h"
#include "replay/replay.h"
#include "standard_output.h"

namespace {

using time_point = bus_client::time_point;

std::string text_of(const std::string& payload) { return decode(payload).text(); }

std::string text_of(const std::optional<recorded_answer>& answer) {
  if (!answer) return "nothing";
  return std::string(msg_type_name(answer->type)) + " " + text_of(answer->payload) + " (" +
         duration_text(answer->took_ns) + ")";
}

nlohmann::json json_of(const std::optional<recorded_answer>& answer) {
  if (!answer) return nullptr;
  nlohmann::json object = decode(answer->payload).json();
  object["type"] = msg_type_name(answer->type);
  object["us"] = static_cast<double>(answer->took_ns) / 1000;
  return object;
}

class client {
 public:
  client(const options& given, const replay_options& what)
      : m_given(given),
        m_what(what),
        m_bus(given.deadline()),
        m_proxy(m_bus.subscribe(what.service, false, given.deadline())),
        m_ignored(what.ignore, find_description()) {}

  void run(const std::vector<recorded_call>& calls) {
    const std::size_t count =
        m_given.count == 0 ? calls.size() : std::min<std::size_t>(calls.size(), m_given.count);
    for (std::size_t i = 0; i < count; ++i) {
      pace(calls, i);
      if (m_what.step && !ask_for(calls[i])) break;
      replay(calls[i]);
    }
    finish();
  }

 private:
  // Only names need it.
  const description* find_description() {
    const bool has_names = std::any_of(
        m_what.ignore.begin(), m_what.ignore.end(),
        [](const std::string& word) { return word.find_first_not_of("0123456789") != std::string::npos; });
    if (!has_names) return nullptr;
    core_services core(m_bus, m_given.deadline());
    m_description = description::parse(core.description(m_what.service)["comment"].get<std::string>());
    return m_description ? &*m_description : nullptr;
  }

  // Waits as long as it was between this call and the one before.
  void pace(const std::vector<recorded_call>& calls, std::size_t i) {
    if (i > 0 && m_what.rate > 0 && !m_what.step && calls[i].time_ns > calls[i - 1].time_ns) {
      const double ns = static_cast<double>(calls[i].time_ns - calls[i - 1].time_ns) / m_what.rate;
      m_bus.rest(m_last +
                 std::chrono::duration_cast<steady::duration>(std::chrono::duration<double, std::nano>(ns)));
    }
    m_last = steady::now();
  }

  static bool ask_for(const recorded_call& next) {
    std::fprintf(stderr, "next is cmd %u %s: return sends it, q ends ", next.cmd,
                 text_of(next.payload).c_str());
    std::string line;
    return static_cast<bool>(std::getline(std::cin, line)) && line != "q";
  }

  void replay(const recorded_call& then) {
    const KXmessage payload = message_with(then.payload);
    if (then.type == MSG_SIG) {
      m_bus.send(m_proxy, MSG_SIG, then.cmd, payload, m_given.deadline());
      return tell("sent", then, {});
    }
    const std::optional<recorded_answer> now = call(then.cmd, payload);
    const verdict_e verdict = compare(then, now, m_ignored);
    ++(verdict == SAME ? m_same : m_different);
    tell(verdict_name(verdict), then, now);
  }

  // Nothing when it is not answered in time.
  std::optional<recorded_answer> call(std::uint8_t cmd, const KXmessage& payload) {
    const auto begin = steady::now();
    try {
      const KXmessage answer = m_bus.call(m_proxy, cmd, payload, m_given.deadline());
      const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now() - begin).count();
      const auto* const bytes = reinterpret_cast<const char*>(answer.data + answer.offset);
      return recorded_answer{answer.m_header->msg_type,
                             {bytes, static_cast<std::size_t>(answer.size)},
                             static_cast<std::uint64_t>(took)};
    } catch (const failure& problem) {
      if (problem.status != TIMED_OUT) throw;
      return std::nullopt;
    }
  }

  void tell(const char* verdict, const recorded_call& then, const std::optional<recorded_answer>& now) const {
    if (m_given.json) {
      const nlohmann::json request = decode(then.payload).json();
      return write_out(dump({{"result", verdict},
                             {"cmd", then.cmd},
                             {"request", request},
                             {"then", json_of(then.answer)},
                             {"now", json_of(now)}}) +
                       "\n");
    }
    std::string line = padded(verdict, 10) + "  cmd " + std::to_string(then.cmd);
    if (!then.payload.empty()) line += " " + text_of(then.payload);
    if (then.type == MSG_REQ) line += "  then " + text_of(then.answer) + "  now " + text_of(now);
    write_out(line + "\n");
  }

  void finish() const {
    const std::string count = std::to_string(m_different) + " of " + std::to_string(m_same + m_different);
    if (m_what.expect && m_different > 0) throw failure(REFUSED, count + " answers are not as recorded");
    if (!m_given.json) write_out(count + " answers differ\n");
  }

  const options& m_given;
  const replay_options& m_what;
  bus_client m_bus;
  bus_client::proxy m_proxy;
  std::optional<description> m_description{};
  const ignored_fields m_ignored;
  time_point m_last{};
  std::size_t m_same = 0;
  std::size_t m_different = 0;
};

}  // namespace

void replay_as_client(const options& given, const replay_options& what, const recorded_calls& recorded) {
  if (recorded.calls().empty())
    throw failure(REFUSED, what.file + " holds no request to '" + printable(what.service) + "'");
  client(given, what).run(recorded.calls());
}
