// screen - what an output can show: how wide it is, and colours.
//
// Threads    Any; pure but for screen_of, which asks the system and the environment.
// Failures   What cannot be found out is as in a pipe.
#pragma once

#include "common/texts.h"

#include <cstddef>
#include <cstdio>

namespace ctl {

struct screen {
    bool redraws = false;     // somebody watches, and a line can be written again
    bool has_colours = false; // never in a pipe, with NO_COLOR, or on a dumb terminal
    size_t width = 0;         // columns; 0: as wide as it takes, as in a pipe
};

// `wanted_width`: instead of the window's; 0: the window's.
screen screen_of(FILE* out, size_t wanted_width);

using tools::printable;
using tools::text_width;

} // namespace ctl
