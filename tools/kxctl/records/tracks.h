// What components did when, on tracks: things that overlap without one holding the other are beside each
// other.
#ifndef KXCTL_TRACKS_H
#define KXCTL_TRACKS_H

#include <cstdint>
#include <string>
#include <vector>

struct slice {
  std::string component;
  std::string name;
  std::uint64_t begin_ns;
  std::uint64_t end_ns;
  std::size_t served;     // the exchange that it belongs to, 0 for one that no server has answered
  bool by_server;         // else by the client
  std::size_t track = 0;  // of its component, from 0
};

// Orders slices by their beginnings, and gives each a track.
void assign_tracks(std::vector<slice>& slices);

#endif
