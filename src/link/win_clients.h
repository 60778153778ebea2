// win_clients - the record of one connected WIN client (a bridge or sub-gateway), and its frame decoder.
//
// Ownership  A record owns its buffer, its identity and its unsent frames. The WIN server's table owns
//            the records.
// Threads    WIN server thread; no lock of its own. Nothing waits.
// Bytes      The stuffing of wire/slip.h comes off; what is in a frame stays as it came.
// Failures   Memory that is short is logged. A frame beyond pending_data_limit is logged and dropped; so is
//            one that memory is too short for. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "base/czmq_ptr.h"
#include "base/memory_sum.h"
#include "link/unsent_messages.h"
#include "link/win_counters.h"
#include "registry/node.h"

#include <czmq.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace rtls {

enum PARSING_STATE { PS_NONE = 0, PS_START = 1, PS_ESCAPE = 2, PS_DATA = 3 };
using PARSING_STATE_t = PARSING_STATE;

// The step in which the buffer of a frame grows, and the most one frame may take.
constexpr size_t pending_data_step = 512;
constexpr size_t pending_data_limit = size_t{1024} * 1024;
// The most that all frames take together, and how much of its buffer a client keeps when a frame is complete.
constexpr size_t pending_data_total_limit = size_t{128} * 1024 * 1024;
constexpr size_t pending_data_kept = size_t{64} * 1024;
// Supervision ticks for which an unwanted client is kept.
constexpr unsigned int connection_delay_ticks = 5;

struct WIN_CLIENT_t {
    lent<zframe_ptr> id;               // a copy of the stream socket's routing identity
    sockaddr_in addr{};                // the peer; zero when unknown
    lent<malloced_bytes> pending_data; // the frame being assembled; grows in place where it can
    size_t pending_data_size = 0;
    size_t pending_buffsize = 0; // capacity of pending_data
    memory_part pending_memory;  // the same, where it is counted for all
    PARSING_STATE_t parsing_state = PS_NONE;
    decoder_counters* counts = nullptr; // of what is lost on the way to a message; null: nobody counts
    uint8_t mac_addr[mac_size]{};       // of the bridge itself; zero until it names it
    bool firmware_updated = false;      // cleared when a new image is announced
    unsigned int connection_delay = connection_delay_ticks; // grace ticks left
    unsent_queue unsent_messages;
    bool unsent_overflow = false; // a loss since it was last empty has been reported
    int fd = -1;                  // the connection's descriptor as seen at connect, or -1
    uint64_t heard_at_check = 0;  // these three are those of silent_ends: when something was last heard,
    bool has_lost_number = false; // whether a later connection has the descriptor's number,
    bool is_unreachable = false;  // and whether the library knows no way to it
    size_t place = 0;             // the table's own
};

// Whether the decoder has bytes of a frame that has not ended.
inline bool is_within_frame(const WIN_CLIENT_t& client)
{
    return client.parsing_state == PS_DATA || client.parsing_state == PS_ESCAPE;
}

// A fresh record with a copy of the identity and no buffer yet, or nullptr with the reason logged.
WIN_CLIENT_t* win_client_new(zframe_t* id);

// Frees the record and all it owns; leaves null. Takes null. (CZMQ's item destructor.)
void win_client_destroy(void** pp_client) noexcept;
using win_client_ptr = std::unique_ptr<WIN_CLIENT_t, destroyed_by<win_client_destroy>>;

// Grows pending_data by one step. False, with a log line and the old buffer in place, when memory is
// short or the limit of a frame is reached.
bool win_client_increase_buffer_size(WIN_CLIENT_t* client);

// Gives the frame at hand up, and the memory that it takes: what is left of it is noise to the decoder.
void win_client_give_up_frame(WIN_CLIENT_t& client);

// Feeds received bytes to the client's decoder up to the end of a frame, and takes them off. True when a frame
// is complete: it stands in client.pending_data, and win_client_end_frame has to follow. Frames may span any
// number of calls.
bool win_client_decode_frame(WIN_CLIENT_t& client, bytes_view& received);
void win_client_end_frame(WIN_CLIENT_t& client);

// Feeds all of the bytes to the decoder, and calls deliver(WIN_CLIENT_t&) for each complete frame.
template <typename Deliver>
void win_client_decode(WIN_CLIENT_t& client, bytes_view received, Deliver deliver)
{
    while (win_client_decode_frame(client, received)) {
        deliver(client);
        win_client_end_frame(client);
    }
}

} // namespace rtls
