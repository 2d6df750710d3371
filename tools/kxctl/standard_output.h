// What a verb writes.
#ifndef KXCTL_STANDARD_OUTPUT_H
#define KXCTL_STANDARD_OUTPUT_H

#include <string>

// Writes, and sees to it that it has been taken. Throws failure: quietly when nobody reads any more.
void write_out(const std::string& text);

bool is_coloured();  // a terminal, whose user has nothing against colours

#endif
