#include "base/rate_bound.h"

#include <unistd.h>

#include <chrono>

namespace rtls {

// Where the system has no randomness to give, the time since its start is hard enough to guess.
static uint64_t random_seed() noexcept
{
    uint64_t seed = 0;
    if (getentropy(&seed, sizeof seed) != 0)
        seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    return seed;
}

rate_bound::rate_bound() noexcept : rate_bound(random_seed()) {}

} // namespace rtls
