// How the verbs for records write, and end.
#ifndef KXCTL_OUTPUT_H
#define KXCTL_OUTPUT_H

#include <cstdint>
#include <memory>

#include "monitor_client.h"
#include "shell.h"
#include "view.h"

// Records for reading, or as JSON, on standard output.
std::unique_ptr<view> make_text_view(const options& given, names& known);

// Throws failure when standard output takes no more.
void flush_output();

void tell_losses(std::uint64_t lost);

// Throws the failure that makes the exit status, unless there was enough.
void end_as(monitor_client::end_e end);

#endif
