// door - who may come in by a listening TCP port: from where, how many in all, how many of one address.
//
// Without rules everybody may, as ever. Whoever may not is counted, and the first of an episode is said: a
// stranger who comes again and again must not fill the log.
// Ownership  A value; the name is a text that outlives it.
// Threads    The actor's whose port it is; other threads may read the counts at any time. Nothing waits.
// Failures   Nothing throws, but reading the rules, which is the main thread's.
#pragma once

#include "base/prefix_list.h"
#include "base/rate_bound.h"

#include <czmq.h>
#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace rtls {

struct door_rules {
    std::string address = "*";           // to bind: one of this host's, or all
    size_t most = 0;                     // connections; 0: no bound
    size_t most_of_one_address = 0;      // connections; 0: no bound
    std::optional<prefix_list> networks; // who may connect; none: everybody
};

enum class door_refusal : uint8_t { network, full, address };
inline constexpr size_t door_refusals = 3;

class door {
public:
    explicit constexpr door(const char* name) noexcept : m_name(name) {}

    door_rules rules; // written before the actor runs

    // Whether a connection from `address` may stay, while there are `present` others, `of_address` of them
    // from the same address. A refusal is counted, and logged (warning) when it begins an episode. `now_ms`:
    // any monotonic clock.
    bool admits(in_addr address, size_t present, size_t of_address, int64_t now_ms) noexcept;

    // Refusals so far.
    uint64_t refused(door_refusal why) const noexcept
    {
        return m_refusals[static_cast<size_t>(why)].count.load(std::memory_order_relaxed);
    }

private:
    struct refusals {
        std::atomic<uint64_t> count{0};
        refusal_episode episode;
    };

    std::optional<door_refusal> judge(in_addr address, size_t present, size_t of_address) const noexcept;

    const char* m_name;
    std::array<refusals, door_refusals> m_refusals;
};

// The optional keys of the door `name` ("win", "terminal"): ports/<name>_address, <name>_connections,
// <name>_connections_per_address, <name>_networks. False, with an error in the log, when one of them can't be
// read: a gateway must not start with a door that stands wider open than somebody meant. May throw
// std::bad_alloc.
bool read_door_rules(zconfig_t* config, const char* name, door_rules& rules);

// The optional key ports/<name>_address, an IPv4 address of this host; "*" when it is absent. False, with an
// error in the log, when it is none.
bool read_door_address(zconfig_t* config, const char* name, std::string& address);

// The optional key ports/<name>_macs; none when it is absent. Otherwise as read_door_rules.
bool read_mac_list(zconfig_t* config, const char* name, std::optional<prefix_list>& macs);

} // namespace rtls
