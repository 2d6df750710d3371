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

std::unique_ptr<view> make_view(const options& given, const show_options& what, names& known) {
  if (what.sequence == "mermaid") return make_mermaid_view(std::cout, known);
  if (what.sequence == "svg") return make_svg_view(std::cout, known);
  if (what.perfetto) return make_perfetto_view(std::cout, known);
  if (what.stats) return make_latency_view(std::cout, given.json, !given.no_header);
  return make_text_view(given, known);
}

void read(std::istream& from, const std::string& name, audience& to) {
  pcapng_reader packets(from, name);
  for (std::string packet; packets.next(packet);)
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
  const std::unique_ptr<view> shown = make_view(how.given, what, known);
  audience heard(wanted, known, *shown, how.given.count);
  try {
    read(is_piped ? std::cin : file, is_piped ? "standard input" : what.file, heard);
  } catch (const failure&) {  // what is whole is shown all the same
    heard.finish();
    flush_output();
    throw;
  }
  heard.finish();
  flush_output();
  tell_losses(heard.lost());
}
