// nearest - which known name somebody may have meant by an unknown one.
//
// Ownership  Values; names found are the table's.
// Threads    Pure.
// Failures   Throws std::bad_alloc.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::check {

// How many letters have to be added, left away, changed or swapped with their neighbour to get from one word to
// the other. Capitals are small ones, and - is _.
size_t distance(std::string_view one, std::string_view other);

// The known word that is meant, when there is one so near that it can hardly be another; or "".
std::string_view nearest(std::string_view word, std::span<const std::string_view> known);

} // namespace rtls::check
