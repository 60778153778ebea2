// endpoints - the names of the channels between this process's own threads.
//
// Ownership  None: texts that live as long as the program.
// Threads    Constants: any. A socket belongs to the thread that is named beside its channel.
// Failures   None here: who opens a socket says what fails.
#pragma once

namespace rtls {

// The debug stream: PULL, bound by the terminal server; a PUSH of each printing thread. One part a line.
inline constexpr char debug_stream_endpoint[] = "inproc://dbg_dump";

// Requests to the WIN server: ROUTER, bound by it; a PUSH of the terminal server's. "winserw": the name has
// stood in logs for long.
inline constexpr char request_channel_endpoint[] = "inproc://winserw_channel";

// A connection's events: PAIR, bound by libzmq for the watch (net/link_watch) of that number.
inline constexpr char link_events_endpoint[] = "inproc://link-%u";

// Who may connect to an encrypted tap: REP, bound by the tap's guard (tap/tap_guard); the library asks. The name is the
// library's (RFC 27/ZAP).
inline constexpr char admission_endpoint[] = "inproc://zeromq.zap.01";

// Whether anybody still takes a topic: XPUB, bound by the tap (tap/tap_socket); its own XSUB asks. Within the tap's own
// context of the library, like the one before.
inline constexpr char tap_question_endpoint[] = "inproc://tap-question";

} // namespace rtls
