// payloads - generic server requests and sensor reports: messages with a payload of their own length.
//
// Their length is a 16-bit quantity, header included, and wraps for the largest payload lengths. Such
// a frame may pass the size checks with far fewer bytes than it promises, so whoever reads the payload
// asks first whether the bytes are there.
// Threads    WIN server thread. Takes the registry's lock to find the sender, and prints, sends and hands on
//            outside it. Nothing waits.
// Bytes      The header is little-endian as it comes and big-endian as it goes on; payloads are big-endian
//            and go on as they are.
// Failures   What is refused or comes from an unknown sender is printed at most; memory that is short is
//            logged.
#pragma once

#include "uplink/link_frame.h"

namespace rtls {

// Both check the size themselves. A wrong one refuses the frame: no ack is sent.
message_outcome handle_generic_server_req(link_frame& frame);
message_outcome handle_sensor_report(link_frame& frame);

// Publishes UL-TDOA data as a management line. False when the message is too short for what it promises.
// `node_mac` is not used.
bool processing_ul_tdoa(WIN_SERVER_t* server, bytes_view message, const uint8_t* node_mac);

} // namespace rtls
