#include "downlink/proxy_reader.h"

#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "wire/messaging.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace rtls {

// The largest commands carry a URL, whose length has 16 bits: 12 + 65,535 bytes, 131,094 digits. (Data for the
// network have 65,535 bytes with all their heads, generic requests 800.) A text that is far beyond can only
// cost: its copies, and its line in the debug stream.
static constexpr size_t largest_command = ota_upload::size + UINT16_MAX;
static constexpr size_t text_limit = size_t{256} * 1024;
static_assert(gwMsgFwImageAvailInd_t::size <= ota_upload::size);
static_assert(text_limit > 2 * largest_command + size_t{64} * 1024);

static void process_text(WIN_SERVER_t* server, const char* text)
{
    constexpr char function[] = "handle_pub_sub_proxy";
    const size_t data_size = strlen(text) / 2;
    if (data_size <= sizeof(gwCmdID_t)) {
        server->counts.note(command_type::undecodable, command_outcome::malformed);
        logger_error(g_logger, "%s: wrong size of input data!", function);
        return;
    }
    const std::unique_ptr<uint8_t[]> data{new (std::nothrow) uint8_t[data_size]};
    if (!data) {
        server->counts.note(command_type::undecodable, command_outcome::out_of_memory);
        logger_error(g_logger, str_out_of_memory, function);
        return;
    }
    // The decoder's one byte more than its limit cannot happen here: the text has no further pair. But it
    // looks at what follows the last pair, and refuses the text for trailing garbage.
    const auto limit = static_cast<ssize_t>(data_size);
    if (string_to_uint8_arr(text, data.get(), limit) != limit) {
        server->counts.note(command_type::undecodable, command_outcome::malformed);
        logger_error(g_logger, "%s: string_to_uint8_arr: wrong input data!", function);
        return;
    }
    process_data_from_pub_sub_proxy(server, data.get(), data_size);
}

// The next text, zero-terminated; or null with the reason logged. Never waits for one: the loop may call for a
// text that a timer before it has taken from the socket, by connecting it again.
static char* receive_text(WIN_SERVER_t& server, zsock_t* reader)
{
    constexpr char function[] = "handle_pub_sub_proxy";
    message_part part;
    if (!part.receive(zsock_resolve(reader))) {
        logger_error(g_logger, "%s: zstr_recv return NULL!", function);
        return nullptr;
    }
    if (part.size() > text_limit) {
        server.counts.note(command_type::undecodable, command_outcome::malformed);
        logger_error(g_logger, "%s: a text of %zu bytes is too long!", function, part.size());
        return nullptr;
    }
    char* text = strndup(reinterpret_cast<const char*>(part.data()), part.size());
    if (!text) {
        server.counts.note(command_type::undecodable, command_outcome::out_of_memory);
        logger_error(g_logger, str_out_of_memory, function);
    }
    return text;
}

int handle_pub_sub_proxy(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    if (any_null(__func__, reader, p_server))
        return 0;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    // Before anything else: even a failed receive is a sign of life.
    server->proxy_is_silent = false;

    const zstr_ptr text{receive_text(*server, reader)};
    if (!text)
        return 0;
    dbg_print(server->dbg_client_sock, DBG_RAW, "PROXY_RAW_INPUT", "%s", text.get());
    process_text(server, text.get());
    return 0;
}

} // namespace rtls
