#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "audience.h"
#include "output.h"
#include "pcapng.h"
#include "verbs.h"

namespace {

std::unique_ptr<view> make_view(std::ostream& to, const options& given, const show_options& what,
                                names& known) {
  if (what.sequence == "mermaid") return make_mermaid_view(to, known);
  if (what.sequence == "svg") return make_svg_view(to, known);
  if (what.perfetto) return make_perfetto_view(to, known);
  if (what.stats) return make_latency_view(to, given.json, !given.no_header);
  return make_text_view(to, given, known);
}

void read(std::istream& from, const std::string& name, audience& to, output& out) {
  pcapng_reader packets(from, name);
  for (std::string packet; packets.next(packet); out.flush_if_long())
    if (!to.take(packet)) return;
}

}  // namespace

void show(const record_options& how, const show_options& what) {
  const filter wanted(how.filter);
  const bool is_piped = what.file == "-";
  std::ifstream file;
  if (!is_piped) file.open(what.file, std::ios::binary);
  if (!is_piped && !file) throw failure(REFUSED, what.file + ": " + strerror(errno));
  names known;
  output out;
  const std::unique_ptr<view> shown = make_view(out.stream(), how.given, what, known);
  audience heard(wanted, known, *shown, how.given.count);
  try {
    read(is_piped ? std::cin : file, is_piped ? "standard input" : what.file, heard, out);
  } catch (const failure&) {  // what is whole is shown all the same
    heard.finish();
    out.flush();
    throw;
  }
  heard.finish();
  out.flush();
  tell_losses(heard.lost());
  heard.complain();
}
