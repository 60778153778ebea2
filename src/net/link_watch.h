// link_watch - one connection to a server upstream: prepared, watched and mended; and what is known of it.
//
// What is to be known, and when a link must be mended, is core/link_record.h; when a server has vanished,
// core/tcp_silence.h. Nothing of this adds a byte to what servers see.
// Ownership  The socket is the caller's; it outlives the watch, or close() comes first.
// Threads    The thread of the socket and of its loop. state() and is_reached(): any.
// Blocking   Nothing waits.
// Failures   Without memory or descriptors for the watch a link works as the library has it: logged. A
//            handshake that failed is logged once, until the next one is done.
#pragma once

#include "base/overflow_watch.h"
#include "core/link_record.h"
#include "core/tcp_silence.h"
#include "core/unsent_count.h"

#include <czmq.h>

#include <string>

namespace rtls {

// Which of the library's threads serves a socket. Names are resolved on the link's thread, and a name server
// that is silent stops it for many seconds: nobody else may live there. A link to an address has nothing to
// resolve. The thread of the ports serves it too: that spares a wake-up for each report.
enum io_thread { io_thread_of_ports, io_thread_of_handler, io_thread_of_proxy, io_thread_of_proxy_input };
inline constexpr size_t io_threads_number = 4;

// Gives the library that many threads, if the environment has not given it more. Before zsys_init, while
// there is one thread only.
void make_io_threads();
// Whether the library connects to `endpoint` without asking for a name: "tcp://", an IPv4 address, a port.
bool is_by_number(const std::string& endpoint);
// Before the socket is bound or connected. Without make_io_threads() any thread serves it.
void serve_by(zsock_t* sock, io_thread thread);

class link_watch {
public:
    // `name` ("message handler") outlives the watch.
    explicit link_watch(const char* name) noexcept : m_name(name) {}
    ~link_watch() { close(); }
    link_watch(const link_watch&) = delete;
    link_watch& operator=(const link_watch&) = delete;

    // Sets the options of `sock`, which is not connected yet, and begins to watch it. It is going to be
    // connected with `endpoint`, and served by `thread_for_names` unless that is by number.
    void open(zsock_t* sock, const std::string& endpoint, io_thread thread_for_names);
    // Who sends by this link counts there; both outlive the watch. Messages that are lost by connecting again
    // belong to the overflow at hand, or are said.
    void count(unsent_count& unsent, overflow_watch& losses) noexcept
    {
        m_unsent = &unsent;
        m_losses = &losses;
    }
    // The loop, on whose thread the socket is used, keeps the watch from now on. False when it cannot.
    bool join(zloop_t* loop);
    // Ends the watch, which may be opened again. The loop is gone, or has not been joined.
    void close() noexcept;

    const char* name() const noexcept { return m_name; }
    // What the loop reads for the watch, or null. The watch's.
    zsock_t* events() const noexcept { return m_events; }
    // Whether it is, or ought to be by now, connected again: the library may not know the endpoint.
    bool is_being_mended() const noexcept { return m_record.is_given_up(); }
    // Whether a server is there, as far as TCP knows.
    bool is_reached() const noexcept { return m_record.is_reached(); }
    link_state state() const noexcept { return m_record.state(); }

private:
    static int handle_events(zloop_t* loop, zsock_t* reader, void* watch) noexcept;
    static int handle_timer(zloop_t* loop, int timer_id, void* watch) noexcept;
    static int handle_sample(zloop_t* loop, int timer_id, void* watch) noexcept;

    void note(int event, int value) noexcept;
    void plan_sample() noexcept;
    void plan_mending() noexcept;
    void mend() noexcept;
    void count_lost() noexcept;

    const char* m_name;
    zsock_t* m_sock = nullptr; // borrowed
    zsock_t* m_events = nullptr;
    zloop_t* m_loop = nullptr; // borrowed
    std::string m_endpoint;
    bool m_is_planned = false;  // the mending
    bool m_is_sampling = false; // a look at the connection is planned
    link_record m_record;
    unsent_count* m_unsent = nullptr;   // borrowed; null: nobody counts
    overflow_watch* m_losses = nullptr; // borrowed
    tcp_silence m_silence;              // of the connection at hand
};

} // namespace rtls
