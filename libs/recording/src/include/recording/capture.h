// capture - packets as they went over a network: from a pcapng file, or one of the older pcap.
//
// Ownership  The reader borrows where bytes come from; packets are values.
// Threads    One at a time.
// Blocking   As the source.
// Bytes      Of the file in either order; of packets as they are.
// Failures   Of a file that is read: how it ends. No length in it is believed: memory grows with the bytes that are
//            there. Of sources: file_error. Of memory: std::bad_alloc.
#pragma once

#include "recording/blocks.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace rtls::recording {

// What captures say that a packet begins with.
namespace link_type {
constexpr uint16_t loopback = 0; // a word for the family
constexpr uint16_t ethernet = 1;
constexpr uint16_t raw_ip = 101;
constexpr uint16_t loopback_openbsd = 108;
constexpr uint16_t cooked = 113; // Linux, any interface
constexpr uint16_t ipv4 = 228;
constexpr uint16_t ipv6 = 229;
constexpr uint16_t cooked_2 = 276;
} // namespace link_type

struct captured_packet {
    uint16_t link_type = 0;
    uint64_t clock_ns = 0;      // since 1970
    std::vector<uint8_t> bytes; // as far as they were kept
};

class capture_reader {
public:
    explicit capture_reader(byte_source& source) : m_begun(source), m_blocks(m_begun) {}
    capture_reader(const capture_reader&) = delete;
    capture_reader& operator=(const capture_reader&) = delete;

    // The next packet, `message`, in the order of the file. Blocks of pcapng that have packets without a time (simple
    // ones) are passed over. Once it is not `message` it stays what it is.
    reading next(captured_packet& packet);
    const std::string& reason() const { return m_reason; }

private:
    // The rest of a source of which the first bytes have been looked at.
    class begun_source final : public byte_source {
    public:
        explicit begun_source(byte_source& rest) : m_rest(rest) {}
        size_t read(bytes_span room) override;
        // The first four bytes, or as many as there are. They are read again.
        bytes_view begin();

    private:
        byte_source& m_rest;
        std::array<uint8_t, 4> m_first{};
        size_t m_size = 0; // of m_first
        size_t m_read = 0; // of these
    };
    struct interface {
        uint16_t link_type = 0;
        uint8_t resolution = 6;
    };
    enum class format : uint8_t { unknown, pcap, pcapng };

    reading damaged(const char* why);
    reading begin();
    reading begin_pcap();
    reading next_of_pcap(captured_packet& packet);
    reading next_of_pcapng(captured_packet& packet);
    void note_interface();
    bool take_packet(captured_packet& packet) const;
    uint32_t load32(bytes_view bytes, size_t at) const;

    begun_source m_begun;
    block_reader m_blocks;
    format m_format = format::unknown;
    bool m_is_big_endian = false;
    interface m_of_pcap;
    std::vector<interface> m_interfaces;
    reading m_state = reading::message;
    std::string m_reason;
};

} // namespace rtls::recording
