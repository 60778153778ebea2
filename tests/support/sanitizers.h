// sanitizers - what a test cannot ask of a program that a sanitizer watches.
//
// Threads    Any. Nothing fails.
#pragma once

#if !defined(__has_feature)
#define __has_feature(feature) 0
#endif

// Whether malloc refuses what no machine has; a sanitizer ends the program instead.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) ||     \
    __has_feature(thread_sanitizer)
inline constexpr bool malloc_can_refuse = false;
#else
inline constexpr bool malloc_can_refuse = true;
#endif

// How many times longer work may take than it does by itself.
inline constexpr int slowness = malloc_can_refuse ? 1 : 20;
