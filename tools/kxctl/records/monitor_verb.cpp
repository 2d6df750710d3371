#include <unistd.h>

#include "audience.h"
#include "monitor_client.h"
#include "output.h"
#include "verbs.h"

void monitor(const record_options& how, const names::fetch_t& fetch) {
  const filter wanted(how.filter);
  names known(fetch);
  output out;
  const std::unique_ptr<view> shown = make_text_view(out.stream(), how.given, known);
  audience heard(wanted, known, *shown, how.given.count);
  heard.ignore("kxctl-" + std::to_string(getpid()));  // what is fetched is our own traffic
  const auto take = [&heard](std::string_view record) { return heard.take(record); };
  monitor_client core(wanted.components(), wanted.services(), how.given.deadline());
  core.end_with_pipe(STDOUT_FILENO);
  const monitor_client::end_e end = core.watch(
      take, [&out] { out.flush(); }, how.until);
  if (end != monitor_client::ENOUGH) core.drain(take);
  heard.finish();
  out.flush();
  tell_losses(heard.lost());
  heard.complain();
  end_as(end);
}
