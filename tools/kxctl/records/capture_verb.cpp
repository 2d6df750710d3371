#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "clock_text.h"
#include "filter.h"
#include "output.h"
#include "recorder.h"
#include "verbs.h"

namespace {

constexpr std::size_t lost_offset = 8;  // in a record

std::string default_path() {
  return "kxctl" +
         time_text(static_cast<std::uint64_t>(std::time(nullptr)) * 1'000'000'000, "-%Y%m%d-%H%M%S") +
         ".pcapng";
}

std::unique_ptr<recorder> make_recorder(const capture_options& what) {
  if (what.ring.empty() != what.on.empty())
    throw failure(USAGE, "--ring and --on belong together: what is kept, and what makes it be written");
  if (what.file == "-" && !(what.ring.empty() && what.rotate.empty()))
    throw failure(USAGE, "--ring and --rotate want a file: name it with -w");
  return what.ring.empty() ? make_file_recorder(what) : make_ring_recorder(what);
}

// Chooses the records that are kept. What was lost before one that is left out is told by the next.
class selection {
 public:
  selection(const filter& wanted, recorder& to, unsigned long count)
      : m_wanted(wanted), m_to(to), m_count(count) {}

  bool take(std::string_view record) {
    const std::optional<entry> parsed = entry::parse(record);
    if (!parsed) return true;
    m_lost += parsed->head.lost;
    m_all_lost += parsed->head.lost;
    const bool is_wanted = parsed->is_of_bus() || m_wanted.matches(*parsed);
    if (m_to.take(*entry::parse(with_losses(record)), is_wanted)) m_lost = 0;
    return m_count == 0 || m_to.count() < m_count;
  }

  std::uint64_t lost() const { return m_all_lost; }

 private:
  std::string_view with_losses(std::string_view record) {
    m_copy = record;
    for (unsigned int i = 0; i < 4; ++i)
      m_copy[lost_offset + i] = static_cast<char>(m_lost >> 8 * (3 - i));
    return m_copy;
  }

  const filter& m_wanted;
  recorder& m_to;
  const unsigned long m_count;
  std::uint32_t m_lost = 0;  // since the record that was kept last
  std::uint64_t m_all_lost = 0;
  std::string m_copy;
};

}  // namespace

void capture(const record_options& how, const capture_options& what) {
  capture_options chosen = what;
  if (chosen.file.empty()) chosen.file = default_path();
  const filter wanted(how.filter);
  const bool has_trigger = !what.on.empty();  // which may be anything
  monitor_client core(has_trigger ? "" : wanted.components(), has_trigger ? "" : wanted.services(),
                      how.given.deadline());
  if (chosen.file == "-") core.end_with_pipe(STDOUT_FILENO);
  const std::unique_ptr<recorder> to = make_recorder(chosen);
  selection kept(wanted, *to, how.given.count);
  const auto take = [&kept](std::string_view record) { return kept.take(record); };
  const monitor_client::end_e end = core.watch(
      take, [&to] { to->flush(); }, how.until);
  if (end != monitor_client::ENOUGH) core.drain(take);
  to->flush();
  std::fprintf(stderr, "kxctl: %s\n", to->summary().c_str());
  tell_losses(kept.lost());
  end_as(end);
}
