// tap_socket - a publish socket of what passes: reports, management lines, commands, the bytes of the bridges'
// connections, events. For whoever wants to see or keep traffic without standing in a server's place (docs/tap.md).
//
// Without its key "tap/address" there is no socket, and takes() is false. With it, takes() is what one asks before
// anything is composed. It goes by the class: who subscribes to the reports of one node has those of all nodes
// composed, and the library picks his.
//
//     if (server.tap.takes(tap_class::command))
//         server.tap.publish({tap_class::command, tap_direction::down}, tap_topic{tap_class::command}, text);
//
// A subscriber that does not read has a queue of its own, of which the library drops what comes when it is full.
// Nobody else misses anything by that. The library tells only which message was the first to be dropped for somebody:
// these are counted. How many have followed, until he had read half of his queue, he sees by the running numbers.
//
// A subscriber may send nothing but topics, in bounds: what he asks for stays in the daemon's memory. Who asks for more
// is cut off.
// Ownership  Owns its sockets, and their context.
// Threads    WIN server thread, between open() and close(); the counters are read by any.
// Blocking   Nothing waits, but close() for the last messages: 0.2 s.
// Failures   A socket that cannot be opened is false, with errno. A message that cannot be composed or sent is
//            counted as lost, and its number is missing. Nothing throws but read().
#pragma once

#include "base/bytes.h"
#include "base/counter.h"
#include "base/rate_bound.h"
#include "net/curve.h"
#include "tap/tap_context.h"
#include "tap/tap_event.h"
#include "tap/tap_format.h"
#include "tap/tap_guard.h"
#include "tap/tap_interest.h"
#include "tap/tap_payloads.h"
#include "tap/tap_place.h"

#include <czmq.h>

#include <array>
#include <cstdint>
#include <string>

namespace rtls {

// Which connection with a bridge something came by, and when. Number 0: none.
struct tap_origin {
    uint32_t connection = 0;
    uint64_t clock_ns = 0; // since 1970; 0: now
};

struct tap_counters {
    counters<tap_class> published;
    counters<tap_class>
        overflows; // messages of which the queue of a subscriber was full; the others had them
    counters<tap_class>
        lost;        // messages that nobody had, as memory was short, or large ones held too much of it
    level topics;    // subscribed to
    counter refused; // connections, with another key than the subscribers'
    counter cut;     // connections by which more came than topics within bounds
};

class tap_socket {
public:
    // How often one looks who has subscribed.
    static constexpr int look_every_ms = 100;

    // The optional key "tap/address". False, logged, when it names no endpoint of tcp or ipc.
    bool read(zconfig_t* config);
    bool is_configured() const noexcept { return !m_endpoint.empty(); }

    // What follows is the actor's. To be configured. Encrypted if the certificates say so.
    bool open(const curve_certificates& certificates);
    void close() noexcept;
    uint64_t opened_at_ns() const noexcept { return m_opened_at_ns; } // since 1970

    // Takes notice of who has come and gone: to be called every look_every_ms. Not a reader of the loop: that would
    // have every turn of it look at one more socket, and cost a report more than all of the rest.
    void look() noexcept;

    // Whether anybody takes messages of the class, or of any.
    bool takes(tap_class of) const noexcept { return m_interest.has(of); }
    bool takes_any() const noexcept { return m_interest.has_any(); }

    // Begins what is caused by the bytes of one read of a connection: it has this origin.
    void begin_read(uint32_t connection) noexcept;
    const tap_origin& read_origin() const noexcept { return m_read; }

    struct subject {
        tap_class of;
        tap_direction direction;
        tap_origin origin = {};
    };
    // Sends one message with this payload, of one frame or two; the first of two is short (inline_part_size).
    void publish(const subject& what, const tap_topic& topic, bytes_view payload) noexcept;
    void publish(const subject& what, const tap_topic& topic, bytes_view before, bytes_view payload) noexcept;

    // Something has happened, to a bridge's connection or to none.
    void publish(const tap_event& event, uint32_t connection = 0) noexcept;

    const tap_counters& counts() const noexcept { return m_counts; }

private:
    void send(const subject& what, const tap_topic& topic, const bytes_view* before,
              bytes_view payload) noexcept;
    bool open_sockets(const curve_certificates& certificates) noexcept;
    bool protect(const curve_certificates& certificates) noexcept;
    bool bind() noexcept;
    bool send_topic(tap_class of, bytes_view topic) noexcept;
    bool notice_what_was_read() noexcept;
    void answer_newcomers() noexcept;
    void heed(message_part& message) noexcept;
    bool heed_mark(bytes_view message) noexcept;
    void ask_whether_taken(message_part& message) noexcept;
    void cut_off(int fd) noexcept;

    std::string m_endpoint;
    tap_payloads m_payloads;
    zmq_context_ptr m_context;
    zmq_socket_ptr m_socket; // XPUB
    zmq_socket_ptr m_asker;  // XSUB, by which we subscribe ourselves for a moment
    tap_guard m_guard;
    tap_place m_place;
    refusal_episode m_refusals;
    refusal_episode m_cuts;
    uint64_t m_opened_at_ns = 0;
    tap_interest m_interest;
    bool m_is_answer = false; // what the library tells now is what we have asked
    tap_origin m_read;
    std::array<uint64_t, tap_classes> m_numbers{}; // the last of each class
    tap_counters m_counts;
};

} // namespace rtls
