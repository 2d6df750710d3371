// The pause between two attempts.
#ifndef PAUSE_H
#define PAUSE_H

// Sleeps for a second, on the whole also when signals cut it short. Async-signal-safe.
void pause_for_a_second();

#endif
