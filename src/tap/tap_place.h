// tap_place - where the tap is bound: which connections are its own, so that one of them can be cut.
//
// The library tells the descriptor of the connection by which something came. By the time that we hear of it, the
// number may belong to another connection: only one that was made to the tap's own place is ever cut. The worst that
// can happen is that it is another subscriber's, who connects again.
// Ownership  Descriptors stay the library's; a duplicate lives for the time of one cut.
// Threads    None of its own: the WIN server's thread.
// Blocking   Nothing waits.
// Failures   What is not proven is not cut. Nothing is logged or throws.
#pragma once

#include <sys/un.h>

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace rtls {

class tap_place {
public:
    // `endpoint`: what has been bound, in the library's words: "tcp://127.0.0.1:5559" or "ipc:///run/tap".
    void set(std::string_view endpoint) noexcept;

    // Whether the connection is one to this place.
    bool has(int fd) const noexcept;
    // Cuts it. False when it is none to this place, or has been cut since all was read.
    bool cut(int fd) noexcept;
    // All that has come is read: what the connections that were cut had sent, too.
    void all_is_read() noexcept { m_cut.clear(); }

private:
    uint16_t m_port = 0;                                     // host order; 0: a local socket
    std::array<char, sizeof sockaddr_un::sun_path> m_path{}; // its path, or nothing
    std::vector<int> m_cut;
};

} // namespace rtls
