// Messages of one sender that were not accepted, by what became of them and by the reason.
#ifndef TALLY_H
#define TALLY_H

#include <functional>
#include <map>
#include <new>
#include <string>
#include <string_view>

struct tally {
  static constexpr std::size_t max_reasons = 32;  // the rest are counted together

  unsigned long refused = 0;  // answered with an error, or a notice that was not carried out
  unsigned long dropped = 0;
  std::map<std::string, unsigned long, std::less<>> reasons{};

  // Takes note of the reason, while there is memory.
  void note(std::string_view reason) {
    auto entry = reasons.find(reason);
    if (entry == reasons.end() && reasons.size() >= max_reasons)
      entry = reasons.find(reason = "other reasons");
    if (entry != reasons.end()) {
      ++entry->second;
      return;
    }
    try {
      reasons.emplace(reason, 1);
    } catch (const std::bad_alloc&) {
    }
  }
};

#endif
