// rpl_version - the version of the routing tree that bridges are told.
#pragma once

#include <cstdint>

namespace rtls {

// The next RPL version, by the lollipop counter of RFC 6550, section 7.2: 240..255, then 0..127 for
// ever. WIN server thread only.
uint8_t get_next_rpl_version(void);

} // namespace rtls
