// The other message bus for D-Bus, which systemd starts as a rule.
#ifndef BENCH_DBUS_BROKER_H
#define BENCH_DBUS_BROKER_H

// Goes on as dbus-broker with this socket and configuration; in a private namespace of mounts, in which it
// leaves its lines to a journal that nobody reads.
[[noreturn]] void become_dbus_broker(const char* socket_path, const char* configuration_path);

#endif
