#include "link/win_server_win_clients.h"

#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/port_stay.h"
#include "link/sending.h"
#include "link/silent_ends.h"
#include "link/tapped.h"
#include "net/stream_send.h"

#include <sys/socket.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <utility>

namespace rtls {

// The most events and bytes that the reader takes before it looks for the others' news: many for the intake, few
// enough for the other sockets. Within such a turn, the stream socket gives one event of each connection that has some in turn, and
// none of them has more than 8 KiB: nobody's flood comes before somebody else's word.
static constexpr int events_per_turn = 64;
static constexpr size_t bytes_per_turn = size_t{64} * 1024;

static constexpr size_t large_event = 1024; // whose cost is asked after

static void print_new_client(WIN_SERVER_t& server, const sockaddr_in* addr, const identity_key& key)
{
    if (addr)
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "new win client [%s] IP %s:%d", key.c_str(),
                  ipv4_text{*addr}.c_str(), ntohs(addr->sin_port));
    else
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "(E) Cannot get IP address for win client [%s]",
                  key.c_str());
}

// A record for a new connection, ready for data; or null. Its address is zero when the peer is gone
// already: the record is needed all the same, for the disconnection that will follow.
static win_client_ptr make_client(WIN_SERVER_t& server, message_part& identity, const identity_key& key)
{
    zframe_ptr id{zframe_new(identity.bytes().data(), identity.bytes().size())};
    win_client_ptr client{id ? win_client_new(id.get()) : nullptr};
    if (!client)
        return nullptr;
    client->fd = identity.source_fd();
    const bool known = read_peer_address(client->fd, server.win_port, client->addr);
    print_new_client(server, known ? &client->addr : nullptr, key);

    client->pending_data.reset(static_cast<uint8_t*>(std::malloc(pending_data_step)));
    if (!client->pending_data) {
        logger_error(g_logger, str_out_of_memory, "handle_win_clients");
        return nullptr;
    }
    client->pending_buffsize = pending_data_step;
    client->pending_memory.set(pending_data_step);
    client->pending_memory.join(server.unfinished_total);
    client->unsent_messages.count_in(server.unsent_total);
    client->counts = &server.counts.decoder;
    return client;
}

static bool is_admitted(WIN_SERVER_t& server, const WIN_CLIENT_t& client)
{
    if (server.house.refuses(client.fd, zclock_mono()))
        return false;
    const in_addr address = client.addr.sin_addr;
    return server.win_door.admits(address, server.clients.size(), server.clients.size_of_address(address),
                                  zclock_mono());
}

static void on_connect(WIN_SERVER_t& server, message_part& identity, const identity_key& key)
{
    win_client_ptr made = make_client(server, identity, key);
    if (!made)
        return server.counts.bridges_not_made.add();
    if (!is_admitted(server, *made)) {
        delete_win_client(&server, made->id); // not in the table yet
        return;
    }
    WIN_CLIENT_t* client = server.clients.insert(key.c_str(), std::move(made));
    if (!client)
        return server.counts.bridges_not_made.add();
    client->heard_at_check = server.end_checks;
    note_number(server, *client);
    server.counts.bridges_accepted.add();
    if (server.tap.takes(tap_class::event))
        tap_connected(server, *client);
    // Bridges wait for this before they speak; it stands outside of any frame on purpose.
    static constexpr uint8_t greeting[] = {'s', 'y', 'n', 'c', '\n'};
    bytes_to_bridge(server, identity.bytes(), greeting);
}

static void on_data(WIN_SERVER_t& server, WIN_CLIENT_t& client, bytes_view data)
{
    client.heard_at_check = server.end_checks;
    server.counts.bytes_in.add(data.size());
    if (dbg_is_wanted(DBG_RAW))
        dbg_print(server.dbg_client_sock, DBG_RAW, "SLIP_RAW_INPUT", "%s [%zu] %s:%d [%s]",
                  hex_text{data}.c_str(), data.size(), ipv4_text{client.addr}.c_str(),
                  ntohs(client.addr.sin_port), identity_key{client.id}.c_str());
    server.event_time = get_current_time();
    if (server.tap.takes_any()) [[unlikely]]
        tap_read(server, client, data);
    begin_answers(server, client);
    parse_data_from_win_client(&server, &client, data.data(), data.size());
    end_answers(server);
    server.event_time.reset();
}

// An empty frame of somebody unknown: a new connection, or the late notice of one that we have closed.
static void on_unknown(WIN_SERVER_t& server, message_part& identity, const identity_key& key)
{
    server.cuts.forget(key.c_str());
    const bool is_late = server.closed_ids.forget(key.c_str());
    server.counts.events[is_late ? bridge_event::late_end : bridge_event::connected].add();
    if (!is_late)
        on_connect(server, identity, key);
}

static void handle_event(WIN_SERVER_t& server, message_part& identity, message_part& data)
{
    WIN_CLIENT_t* client = server.clients.find(identity.bytes());
    const bytes_view bytes = data.bytes();
    auto& events = server.counts.events;
    if (client && !bytes.empty()) {
        events[bridge_event::data].add();
        on_data(server, *client, bytes);
    } else if (client) {
        events[bridge_event::disconnected].add();
        end_by_peer(server, *client);
    } else if (!bytes.empty()) {
        events[bridge_event::data_of_nobody].add();
        dbg_print(server.dbg_client_sock, DBG_WIN, "SLIP", "(E) rsvd from non existed client %s",
                  identity_key{identity.bytes()}.c_str());
    } else
        on_unknown(server, identity, identity_key{identity.bytes()});
}

static uint64_t handed_over(const WIN_SERVER_t& server)
{
    return server.to_handler.counts().at_once.value() + server.to_proxy_input.counts().at_once.value();
}

// What has been handed over since the last time has taken no longer than from then to now.
static void note_hand_overs(WIN_SERVER_t& server, int64_t now)
{
    const uint64_t all = handed_over(server);
    if (all != server.hand_overs_noted)
        server.counts.hand_over.add(now - server.hand_overs_noted_at, all - server.hand_overs_noted);
    server.hand_overs_noted = all;
    server.hand_overs_noted_at = now;
}

// Whoever drains the port looks at the clock for a reason of his own, and notes what there is. A turn that ends
// at its bounds, or in a pause, costs a look for all that it has handed over; one without any costs none.
static void note_end_of_turn(WIN_SERVER_t& server)
{
    if (handed_over(server) != server.hand_overs_noted)
        note_hand_overs(server, zclock_usecs());
}

// Of this thread.
static int64_t processor_usecs()
{
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return int64_t{used.tv_sec} * 1'000'000 + used.tv_nsec / 1000;
}

// Whether what has been handled since the first large event has cost much.
static bool is_costly(WIN_SERVER_t& server, size_t handled)
{
    if (server.undrained_cost_from == 0 && handled >= large_event)
        server.undrained_cost_from = processor_usecs();
    return server.undrained_cost_from != 0 && server.undrained_bytes >= costly_bytes &&
           processor_usecs() - server.undrained_cost_from >= costly_us;
}

// Counts what has been handled without draining the port, and leaves the debug lines out while that is too
// much: making them takes many times what most messages do, and one who floods would have us do nothing else.
static void note_backlog(WIN_SERVER_t& server, int64_t now, size_t handled)
{
    if (server.undrained_since == 0)
        server.undrained_since = now;
    server.undrained_bytes += handled;
    const bool is_late = server.undrained_bytes >= behind_bytes && now - server.undrained_since >= behind_us;
    const bool is_behind = is_late || is_costly(server, handled);
    dbg_hold(is_behind);
    if (is_behind && server.lines_left_out.begins(now / 1000))
        logger_warning(g_logger,
                       "%s: bridges send more than can be handled, debug lines are left out meanwhile!",
                       "handle_win_clients");
}

static void note_drained(WIN_SERVER_t& server)
{
    server.undrained_since = 0;
    server.undrained_bytes = 0;
    server.undrained_cost_from = 0;
    dbg_hold(false);
}

// The identity of one more event. If there is none, `drained_at` (zclock_usecs) says since when.
static bool receive_another(message_part& identity, WIN_SERVER_t& server, void* socket,
                            std::optional<int64_t>& drained_at)
{
    if (identity.receive(socket))
        return true;
    note_drained(server);
    drained_at = zclock_usecs();
    note_hand_overs(server, *drained_at);
    return false;
}

namespace {

struct turn_end {
    bool is_complete;                  // false: an event without its data
    std::optional<int64_t> drained_at; // none: events may be left
};

} // namespace

// Handles events from the one on, whose identity is at hand.
static turn_end handle_events(WIN_SERVER_t& server, void* socket, message_part& identity)
{
    message_part data;
    size_t bytes = 0;
    for (int events = 1;; ++events) {
        if (!data.receive(socket))
            return {false, {}};
        const size_t size = data.size();
        handle_event(server, identity, data);
        bytes += size;
        if (size >= large_event)
            note_backlog(server, zclock_usecs(), size);
        if (events == events_per_turn || bytes >= bytes_per_turn || server.intake_is_paused)
            return {true, {}};
        if (std::optional<int64_t> drained_at; !receive_another(identity, server, socket, drained_at))
            return {true, drained_at};
    }
}

static turn_end handle_turn(WIN_SERVER_t& server, void* socket, message_part& identity, int64_t began)
{
    const dbg_turn turn;
    server.hand_overs_noted_at = began;
    note_backlog(server, began, 0);
    const turn_end end = handle_events(server, socket, identity);
    if (!end.is_complete)
        log_call_error("handle_win_clients", "zframe_recv");
    dbg_hold(false); // what others have this thread do is shown
    // What waits on purpose is no backlog, either.
    if (server.undrained_since != 0 && (server.intake_is_paused || !has_events(socket)))
        note_drained(server);
    server.cuts.carry_out(socket, server.win_port);
    note_end_of_turn(server);
    return end;
}

int handle_win_clients(zloop_t* loop, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, reader, server))
        return 1;
    void* socket = zsock_resolve(reader);
    int64_t began = zclock_usecs();
    port_stay stay{*server, began};
    message_part identity;
    if (!identity.receive(socket)) {
        logger_error(g_logger, "%s: zframe_recv returned NULL!", __func__);
        return 1;
    }
    while (true) {
        const turn_end end = handle_turn(*server, socket, identity, began);
        if (!end.is_complete)
            return 1;
        if (!stay.goes_on(end.drained_at) || !identity.receive(socket))
            return 0;
        began = zclock_usecs();
    }
}

// When all frames together take too much, the largest is given up, this client's or another's.
static void bound_frames(WIN_SERVER_t& server, size_t added)
{
    while (server.unfinished_total.bytes() + added > pending_data_total_limit) {
        WIN_CLIENT_t* largest =
            server.clients.largest([](const WIN_CLIENT_t& c) { return c.pending_memory.bytes(); });
        const size_t before = largest ? largest->pending_memory.bytes() : 0;
        if (before <= pending_data_step)
            return; // many small ones: each costs no more than its connection does
        if (server.frames_given_up.begins(zclock_mono()))
            logger_error(g_logger,
                         "%s: the unfinished messages of all win clients take too much: the one of [%s] "
                         "IP %s:%d, %zu bytes, is dropped!",
                         "parse_data_from_win_client", identity_key{largest->id}.c_str(),
                         ipv4_text{largest->addr}.c_str(), ntohs(largest->addr.sin_port),
                         largest->pending_data_size);
        win_client_give_up_frame(*largest);
        if (largest->pending_memory.bytes() == before)
            return; // the memory could not be had back
    }
}

void parse_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size)
{
    if (any_null(__func__, server, client, data))
        return;
    bound_frames(*server, size);
    win_client_decode(*client, {data, size}, [server](WIN_CLIENT_t& sender) {
        server->counts.frames_in.add();
        server->process_frame(server, &sender);
    });
}

} // namespace rtls
