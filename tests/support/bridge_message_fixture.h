// bridge_message_fixture - frames from bridges go in, and all that the daemon makes of them comes out.
//
// A frame stands in a buffer of exactly its size, so that the sanitizers see any read past its end.
// Threads    The test's own; no actor runs.
// Failures   As test_gateway's.
#pragma once

#include "support/hex_bytes.h"
#include "support/node_command_fixture.h"
#include "wire/messaging.h"

#include <optional>
#include <string>
#include <vector>

namespace rtls {

// --- messages as bridges and nodes write them

inline constexpr char sender_mac[] = "E4 A2 A3 A4 A5 A6 A7 A8";
inline constexpr char sender_ip[] =
    "FE 80 00 00 00 00 00 00 00 A2 A3 A4 A5 A6 A7 A8"; // stands for sender_mac
inline constexpr char other_mac[] = "02 00 00 00 00 00 00 99";
inline constexpr char other_ip[] = "20 01 00 00 00 00 00 00 00 00 00 00 00 00 0A 0B";
inline constexpr char bridge_mac[] = "AB CD EF 01 2A BC DE 3F";

bytes_t le16(unsigned value);

// The 39 bytes of a heartbeat that a node writes itself; `type` with flag bits, if any.
struct heartbeat_options {
    unsigned type = MSG_HEARTBEAT_IND;
    uint8_t seq = 1;
    uint8_t reporting_freq = 10;
    std::string mac = sender_mac;
};
bytes_t heartbeat_body(const heartbeat_options& options);
// All 63 of them, as a node writes that has a connection of its own.
bytes_t heartbeat(const heartbeat_options& options = {});

// The heartbeat of `heartbeat()` as the servers get it: without its address, with position and bridge.
inline const std::string heartbeat_report =
    digits("0104 01 0A145207 E4A2A3A4A5A6A7A8 B1B2B3B4B5B6B7B8 01020304") +
    digits("000004D2 FFFFFFFE FFFD1234") + digits("ABCDEF012ABCDE3F");

bytes_t panid_req(uint8_t seq, const std::string& mac = bridge_mac);
bytes_t announce_root(uint8_t seq, const std::string& mac = bridge_mac);

// Header and payload, as they stand in front of the sender's address or an envelope's trailer.
bytes_t payload_message(unsigned type, uint8_t seq, const bytes_t& payload);
// The same with a sub-command before `body`.
bytes_t generic_req(uint8_t seq, uint16_t sub_command, const bytes_t& body);

bytes_t envelope(const bytes_t& inner, const std::string& mac = sender_mac,
                 unsigned type = MSG_NWK_DATA_15_4_IND, uint8_t seq = 9, const std::string& ip = sender_ip);
bytes_t with_timestamp(const bytes_t& message, const std::string& seconds_and_fraction = "65 53 F1 00 80 00");

// --- the daemon

class bridge_message_fixture : public node_command_fixture {
protected:
    bridge_message_fixture();
    ~bridge_message_fixture() override;
    bridge_message_fixture(const bridge_message_fixture&) = delete;
    bridge_message_fixture& operator=(const bridge_message_fixture&) = delete;

    // What processing the frame answers.
    bool receive(const bytes_t& frame) { return receive(frame, bridge); }
    bool receive(const bytes_t& frame, WIN_CLIENT_t* from);

    // What came since the last call: to the bridge, and to the servers. Messages as hex, reports to the
    // message handler without the time, which comes before them ("653BA54001F4").
    texts_t replies() { return sent_to(bridge); }
    texts_t reports();
    texts_t times_of_reports();
    // Management lines, without the time of sending.
    texts_t management_texts();

    // The node, or nullptr. No other thread knows it.
    const NODE_t* node(const std::string& mac);
    size_t node_count();
    // The identity of the bridge that reaches the node; "" when there is none.
    std::string route_of(const std::string& mac);

    // Makes the node known by its address, as its own heartbeat does.
    void introduce(const std::string& mac, const std::string& ip);

    WIN_CLIENT_t* bridge;
    WIN_CLIENT_t* other_bridge;

private:
    zsock_t* m_handler;
    zsock_t* m_proxy;
};

} // namespace rtls
