// The components of a soak that only answer. Each function lives one, until its process is killed; `ready`
// goes up when it can be called.
#ifndef SERVERS_H
#define SERVERS_H

#include <atomic>
#include <string>

constexpr char counting_service[] = "count";

// Offers the function of its own name.
void serve(const std::string& name, std::atomic<int>& ready);

// Offers counting_service, too, a signal that tells after each request how many there were, all in a storm of
// interruptions.
void serve_and_count(const std::string& name, std::atomic<int>& ready);

#endif
