// screen - what an output can show: how wide it is, colours, and text of strangers made harmless.
//
// Threads    Any; pure but for screen_of, which asks the system and the environment.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace ctl {

struct screen {
    bool redraws = false;     // somebody watches, and a line can be written again
    bool has_colours = false; // never in a pipe, with NO_COLOR, or on a dumb terminal
    size_t width = 0;         // columns; 0: as wide as it takes, as in a pipe
};

// `wanted_width`: instead of the window's; 0: the window's.
screen screen_of(FILE* out, size_t wanted_width);

// What may be shown: control characters and bytes that are no UTF-8 become \xNN. Devices and other operators
// choose some of the texts that a gateway tells, and must not move somebody's cursor with them.
std::string printable(std::string_view text);

// Characters of a text that is printable: what it takes on a screen.
size_t text_width(std::string_view text);

} // namespace ctl
