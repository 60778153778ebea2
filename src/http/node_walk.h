// node_walk - the registry's nodes, copied in slices: the lock is held for a few hundred nodes at a time, and
// the actors have their turn in between.
//
// Ownership  The rows are copies, lent for the call.
// Threads    Any.
// Blocking   Waits for the registry's lock, and a little between two slices.
// Failures   std::bad_alloc.
#pragma once

#include "registry/nodes_container.h"
#include "terminal/listing.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <span>

namespace rtls {

constexpr size_t nodes_of_slice = 256;

// Calls take() for one slice after the other, without the lock. When the table is rebuilt meanwhile, which
// happens a dozen times in its life, it calls begin_anew(), and everything comes once more. False when it broke
// off, as `is_stopping` had become true.
bool walk_nodes(NODES_CONTAINER_t& nodes, const bridge_index& bridges,
                const std::function<void(std::span<const node_row>)>& take,
                const std::function<void()>& begin_anew, const std::atomic<bool>& is_stopping);

} // namespace rtls
