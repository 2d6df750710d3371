// The components of a soak that call. Each function lives one: a mortal until its process is killed, the
// others until all callers together have taken `requests` on themselves.
#ifndef CALLERS_H
#define CALLERS_H

#include <string>

// Calls one server after the other, at random, but not the flooded one.
void live_as_caller(const std::string& name, int servers, long requests, unsigned int seed);

// Does so from a thread beside its loop, which takes the signals of the counting server, all in a storm of
// interruptions. Its own latency is what the storm and the loop make of it, and is not recorded.
void live_as_watching_caller(const std::string& name, int servers, long requests, unsigned int seed);

// Serves, and calls the server that is flooded, which may have no room for it.
void live_dangerously(const std::string& name);

#endif
