// ctimestamp - a point in time as it crosses the logging library's flat interface.
//
// Threads    Any; a value. Nothing fails.
#pragma once

#include <stdint.h>

// Seconds since the epoch (UTC, real-time clock) and the milliseconds within that second (0..999).
typedef struct tav_timestamp_t {
    int64_t seconds;
    uint32_t milliseconds;
} tav_timestamp_t;
