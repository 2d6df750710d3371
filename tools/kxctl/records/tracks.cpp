#include "tracks.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace {

// The ends of the slices that are open on a track, each within the one before.
using open_ends = std::vector<std::uint64_t>;

bool takes(open_ends& track, const slice& added) {
  while (!track.empty() && track.back() <= added.begin_ns)
    track.pop_back();
  return track.empty() || track.back() >= added.end_ns;
}

}  // namespace

void assign_tracks(std::vector<slice>& slices) {
  std::stable_sort(slices.begin(), slices.end(), [](const slice& a, const slice& b) {
    return std::tie(a.begin_ns, b.end_ns) < std::tie(b.begin_ns, a.end_ns);  // the longer one first
  });
  std::map<std::string, std::vector<open_ends>> components;
  for (slice& each : slices) {
    std::vector<open_ends>& tracks = components[each.component];
    auto free =
        std::find_if(tracks.begin(), tracks.end(), [&each](open_ends& track) { return takes(track, each); });
    if (free == tracks.end()) free = tracks.insert(free, open_ends{});
    free->push_back(each.end_ns);
    each.track = static_cast<std::size_t>(free - tracks.begin());
  }
}
