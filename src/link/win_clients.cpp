#include "link/win_clients.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "wire/slip.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace rtls {

WIN_CLIENT_t* win_client_new(zframe_t* id)
{
    if (any_null(__func__, id))
        return nullptr;
    win_client_ptr client{new (std::nothrow) WIN_CLIENT_t{}};
    if (!client) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    client->id.reset(zframe_dup(id));
    if (!client->id) {
        log_call_error(__func__, "zframe_dup");
        return nullptr;
    }
    return client.release();
}

void win_client_destroy(void** pp_client) noexcept
{
    if (any_null(__func__, pp_client))
        return;
    auto* client = static_cast<WIN_CLIENT_t*>(*pp_client);
    if (!client)
        return;
    delete client;
    *pp_client = nullptr;
}

// Gives pending_data another capacity and keeps its content. False, with everything as it was, when
// memory is short.
static bool set_capacity(WIN_CLIENT_t& client, size_t capacity)
{
    void* moved = std::realloc(client.pending_data.get(), capacity);
    if (!moved)
        return false;
    (void)client.pending_data.release(); // realloc has disposed of it
    client.pending_data.reset(static_cast<uint8_t*>(moved));
    client.pending_buffsize = capacity;
    client.pending_memory.set(capacity);
    return true;
}

// Frees what of the buffer is over `capacity`, with the content there.
static void shrink_to(WIN_CLIENT_t& client, size_t capacity)
{
    if (client.pending_buffsize > capacity && set_capacity(client, capacity))
        client.pending_data_size = std::min(client.pending_data_size, capacity);
}

static void count(const WIN_CLIENT_t& client, frame_loss loss)
{
    if (client.counts)
        client.counts->lost[loss].add();
}

void win_client_give_up_frame(WIN_CLIENT_t& client)
{
    if (is_within_frame(client)) // the room may be that of one which has ended, or was lost already
        count(client, frame_loss::given_up);
    client.parsing_state = PS_NONE;
    shrink_to(client, pending_data_step);
}

bool win_client_increase_buffer_size(WIN_CLIENT_t* client)
{
    if (any_null(__func__, client))
        return false;
    const size_t capacity = client->pending_buffsize + pending_data_step;
    // A peer that never ends its frame must not take all our memory.
    if (capacity > pending_data_limit || !set_capacity(*client, capacity)) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    return true;
}

// Takes all the steps that a run needs at once: a long frame is then not moved at each of them. When
// there is no room for all, append goes step by step and reports where it ends.
static void reserve(WIN_CLIENT_t& client, size_t size)
{
    const size_t steps = (client.pending_data_size + size + pending_data_step - 1) / pending_data_step;
    const size_t capacity = std::min(steps * pending_data_step, pending_data_limit);
    if (capacity > client.pending_buffsize)
        (void)set_capacity(client, capacity);
}

// Appends bytes to the frame; when it cannot grow any more, drops the frame and the bytes.
static void append(WIN_CLIENT_t& client, bytes_view bytes)
{
    reserve(client, bytes.size());
    while (!bytes.empty()) {
        if (client.pending_data_size == client.pending_buffsize &&
            !win_client_increase_buffer_size(&client)) {
            const bool too_long = client.pending_buffsize + pending_data_step > pending_data_limit;
            count(client, too_long ? frame_loss::too_long : frame_loss::out_of_memory);
            client.parsing_state = PS_NONE;
            return;
        }
        const size_t fit = std::min(bytes.size(), client.pending_buffsize - client.pending_data_size);
        std::memcpy(client.pending_data + client.pending_data_size, bytes.data(), fit);
        client.pending_data_size += fit;
        bytes = bytes.subspan(fit);
    }
    client.parsing_state = PS_DATA;
}

// The number of bytes from the first START on; 0 when there is none.
static size_t left_from_start(bytes_view bytes)
{
    const void* start = std::memchr(bytes.data(), slip_start, bytes.size());
    return start ? static_cast<size_t>(bytes.data() + bytes.size() - static_cast<const uint8_t*>(start)) : 0;
}

bool win_client_decode_frame(WIN_CLIENT_t& client, bytes_view& received)
{
    while (!received.empty()) {
        const bytes_view first = received.first(1);
        size_t used = 1;
        switch (client.parsing_state) {
        case PS_NONE:
            used = received.size() - left_from_start(received); // all that is no START is noise
            if (used > 0 && client.counts)
                client.counts->noise.add(used);
            if (used < received.size()) {
                client.parsing_state = PS_START;
                ++used;
            }
            break;
        case PS_START:
            client.pending_data_size = 0;
            switch (first[0]) {
            case slip_start:
                break;
            case slip_esc:
                client.parsing_state = PS_ESCAPE;
                break;
            case slip_end: // an empty frame
                count(client, frame_loss::empty);
                client.parsing_state = PS_NONE;
                break;
            default:
                append(client, first);
            }
            break;
        case PS_ESCAPE:
            append(client, first);
            break;
        case PS_DATA:
            switch (first[0]) {
            case slip_start: // the partial frame is given up
                count(client, frame_loss::restarted);
                client.parsing_state = PS_START;
                break;
            case slip_esc:
                client.parsing_state = PS_ESCAPE;
                break;
            case slip_end:
                received = received.subspan(used);
                return true;
            default:
                used = slip_ordinary_run(received);
                append(client, received.first(used));
            }
            break;
        }
        received = received.subspan(used);
    }
    return false;
}

void win_client_end_frame(WIN_CLIENT_t& client)
{
    client.parsing_state = PS_NONE;
    shrink_to(client, pending_data_kept);
}

} // namespace rtls
