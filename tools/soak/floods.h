// What fills the queues of a soak. Each function lives one component, until its process is killed.
#ifndef FLOODS_H
#define FLOODS_H

#include <string>

// Sends requests to components that do not read, until the core refuses them, which is counted as
// queues_full; then one now and then.
void fill_queues(int stopped);

// Sends, once the requests begin, as fast as the core takes it. In turn what is in order, what is for
// somebody who does not read, what comes from somebody else, and what makes no sense; the last two cut off
// anywhere.
void flood(const std::string& name, unsigned int seed);

// Sends, once the requests begin, requests from so many sockets of nobody's to both sockets of the core,
// without a pause and without reading the answers. The send buffer of every eighth is as large as the system
// permits.
[[noreturn]] void flood_as_strangers(int sockets);

#endif
