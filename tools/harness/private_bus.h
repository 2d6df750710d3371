// Gives a test or benchmark, and what it starts, a bus directory of their own, so that they use the real
// paths and run beside other copies of themselves and beside a bus in use.
#ifndef PRIVATE_BUS_H
#define PRIVATE_BUS_H

// Mounts a fresh "/tmp/kxcore" in a mount namespace of this process. Where the system permits no namespaces,
// waits for others that use this to end, and ends the process with a message when a bus is in use.
void enter_private_bus();

#endif
