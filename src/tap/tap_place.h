// tap_place - where the tap is bound: which connections are its own, so that one of them can be cut; and how much each
// has sent lately.
//
// The library tells the descriptor of the connection by which something came. By the time that we hear of it, the
// number may belong to another connection: only one that was made to the tap's own place is ever cut. The worst that
// can happen is that it is another subscriber's, who connects again.
// Ownership  Descriptors stay the library's; a duplicate lives for the time of one cut.
// Threads    None of its own: the WIN server's thread.
// Blocking   Nothing waits.
// Failures   What is not proven is not cut; nor what memory is too short to remember. Nothing is logged or throws.
#pragma once

#include "tap/tap_interest.h"

#include <sys/un.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

namespace rtls {

class tap_place {
public:
    // Messages of one connection before all is read again.
    static constexpr size_t most_at_once = 2 * tap_interest::most_topics; // each begun, and ended
    // One that was cut is not cut again for so many looks: what it had sent before is still coming.
    static constexpr int looks_of_rest = 10;

    // `endpoint`: what has been bound, in the library's words: "tcp://127.0.0.1:5559" or "ipc:///run/tap".
    void set(std::string_view endpoint) noexcept;

    // Whether the connection is one to this place.
    bool has(int fd) const noexcept;
    // Another message came by it. False when these are more than anybody honest sends at once, as far as is known.
    bool bears(int fd) noexcept;
    // Cuts it. False when it is none to this place, or has been cut lately.
    bool cut(int fd) noexcept;
    // A look is over. `all_is_read`: what the connections that were cut had sent, too. So all of them are forgotten; and
    // without, those that were cut a while ago: the number may be somebody else's by now.
    void look_is_over(bool all_is_read) noexcept;

private:
    uint16_t m_port = 0;                                     // host order; 0: a local socket
    std::array<char, sizeof sockaddr_un::sun_path> m_path{}; // its path, or nothing
    struct connection {
        size_t messages = 0;
        int looks_since_cut = -1; // -1: it has not been
    };
    std::map<int, connection> m_lately; // by the descriptor
};

} // namespace rtls
