// The description of a service, from the core.
#ifndef KXCTL_DESCRIPTION_SOURCE_H
#define KXCTL_DESCRIPTION_SOURCE_H

#include <string>

// As names want it: "" when there is none, or the core does not tell it at once.
std::string fetch_description(const std::string& service);

#endif
