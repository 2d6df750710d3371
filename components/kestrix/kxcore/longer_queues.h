// Sockets that hold more unread datagrams than usual.
#ifndef LONGER_QUEUES_H
#define LONGER_QUEUES_H

#include <functional>
#include <string>

// A socket of the core holds this many unread datagrams and one: so many that before it is full the send
// buffers of some sixty senders are. More only where the system has been told to.
constexpr int socket_queue = 16384;

// Runs `create`, on a thread of its own whose sockets get such a queue. The length is taken from the network
// namespace in which a socket is created, so the thread enters a new one; sockets with a path are reached
// from everywhere. No setting of the system is changed. Passes on what `create` throws. Returns why the
// queues are not longer, where the system does not permit it, else an empty text.
std::string with_longer_queues(const std::function<void()>& create);

#endif
