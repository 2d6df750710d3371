// Writing to who may not read.
#ifndef KXCTL_PATIENT_WRITE_H
#define KXCTL_PATIENT_WRITE_H

#include <sys/types.h>

#include <string_view>

// Writes a part of the text as soon as there is room for it; how much, or -1 with errno. Throws failure when
// a signal that is held back is to end the program meanwhile.
ssize_t write_some(int fd, std::string_view text);

#endif
