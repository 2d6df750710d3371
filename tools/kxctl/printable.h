// Texts as people may see them, whatever bytes they have.
#ifndef KXCTL_PRINTABLE_H
#define KXCTL_PRINTABLE_H

#include <string>
#include <string_view>

// The text with control characters, and what is no UTF-8, as \xNN: neither a terminal nor a file of text
// takes harm from it.
std::string printable(std::string_view text);

// How many columns a printable text takes: one for each character.
std::size_t width_of(std::string_view text);

// The text, at most so wide: an ellipsis stands for the rest.
std::string shortened(std::string_view text, std::size_t width);

// Appends spaces up to this width, if it is less.
std::string padded(std::string text, std::size_t width);

std::string duration_text(std::uint64_t ns);  // "81.9 us", "1.20 s"

#endif
