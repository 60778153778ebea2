// connections - one TCP connection to the gateway for each that was recorded.
//
// Ownership  Owns the sockets. What the gateway sends is read and dropped: it must not wait for us.
// Threads    One.
// Blocking   send() until TCP has taken all; wait() for the time that it is told.
// Failures   A gateway that cannot be reached: tap::failure, unreachable. No descriptor for one more: failed. A gateway
//            that closes a connection: counted.
#pragma once

#include "base/bytes.h"
#include "base/unique_fd.h"

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace replay {

class connections {
public:
    // `address`: HOST:PORT. `seed`: cut the bytes of each connection elsewhere than they were; 0: as they were.
    connections(const std::string& address, uint64_t seed);

    // On the connection with this number, which is opened when it is new.
    void send(uint32_t number, rtls::bytes_view bytes);
    void close(uint32_t number);
    // What was kept for later cuts goes out.
    void send_rest();
    void wait(std::chrono::milliseconds time);
    // Closes all; returns when the gateway has, too, or after two seconds.
    void finish();

    size_t opened() const { return m_opened; }
    uint64_t sent() const { return m_sent; }
    // Connections that the gateway closed, on which there was more to send.
    size_t refused() const { return m_refused; }

private:
    struct connection {
        rtls::unique_fd socket; // none: the gateway has closed it
        bool is_refused = false;
        std::vector<uint8_t> kept;
    };
    connection& opened(uint32_t number);
    rtls::unique_fd connect() const;
    size_t open() const;
    void put(connection& to, rtls::bytes_view bytes);
    void end(connection& it);

    std::string m_host;
    std::string m_port;
    std::string m_address;
    uint64_t m_seed;
    std::mt19937_64 m_random;
    rtls::unique_fd m_events;
    std::unordered_map<uint32_t, connection> m_all;
    size_t m_opened = 0;
    uint64_t m_sent = 0;
    size_t m_refused = 0;
};

} // namespace replay
