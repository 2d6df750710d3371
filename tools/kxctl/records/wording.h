// What a record says, in words.
#ifndef KXCTL_WORDING_H
#define KXCTL_WORDING_H

#include <string>

#include "entry.h"
#include "names.h"

decoded_payload payload_of(const entry& what);

// Each is printable.
std::string type_text(const entry& what);                   // "REQ", or the event when it is of no message
std::string command_text(const entry& what, names& known);  // the name of the command, else its number
std::string values_text(const entry& what, names& known);   // with their names and units
std::string note_text(const entry& what);                   // what is special: "refused: ...", or ""

#endif
