#include "downlink/proxy_reader.h"

#include "base/hex.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "wire/messaging.h"

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace rtls {

// The largest commands carry a URL, whose length has 16 bits: 12 + 65,535 bytes, 131,094 digits. (Data for the
// network have 65,535 bytes with all their heads, generic requests 800.) A text that is far beyond can only
// cost: its copies, and its line in the debug stream.
static constexpr size_t largest_command = ota_upload::size + UINT16_MAX;
static constexpr size_t text_limit = size_t{256} * 1024;
static_assert(gwMsgFwImageAvailInd_t::size <= ota_upload::size);
static_assert(text_limit > 2 * largest_command + size_t{64} * 1024);

// The most that one call of the reader takes, and how long it goes on: many for the proxy, few enough for the other
// sockets. A command that goes to every bridge, or through a registry that is in somebody else's hands, takes as
// long as many others do.
static constexpr size_t commands_per_call = 64;
static constexpr size_t digits_per_call = size_t{64} * 1024;
static constexpr int64_t call_us = 1000;

// Of a command, on the stack: of nearly all of them.
static constexpr size_t usual_command = 1024;

static constexpr char reader_name[] = "handle_pub_sub_proxy";

namespace {

// What one call of the reader has done so far.
class reader_call {
public:
    explicit reader_call(const WIN_SERVER_t& server) : m_server(server), m_cached_before(cached()) {}

    // Another command, which has come at this time of day.
    void note(size_t digits, timeval now) noexcept
    {
        const int64_t now_us = int64_t{now.tv_sec} * 1'000'000 + now.tv_usec;
        if (m_commands++ == 0)
            m_began_us = now_us;
        m_digits += digits;
        m_took_us = now_us - m_began_us;
    }

    // Whether it is the turn of the loop's other sources. It is, too, when a bridge's queue has been full: the
    // library needs the loop to see that there is room again, and what comes next for the bridge has to wait.
    bool is_over() const noexcept
    {
        return m_commands >= commands_per_call || m_digits >= digits_per_call || m_took_us >= call_us ||
               cached() != m_cached_before;
    }

private:
    uint64_t cached() const noexcept { return m_server.counts.bridge_messages_cached.value(); }

    const WIN_SERVER_t& m_server;
    uint64_t m_cached_before;
    size_t m_commands = 0;
    size_t m_digits = 0;
    int64_t m_began_us = 0;
    int64_t m_took_us = 0; // up to the last command
};

} // namespace

static void refuse(WIN_SERVER_t& server, command_outcome outcome)
{
    server.counts.note(command_type::undecodable, outcome);
}

// Decodes the digits into `data`, which has room for them, and runs the command.
static void decode_and_run(WIN_SERVER_t& server, std::string_view text, uint8_t* data, timeval now)
{
    if (!hex_to_bytes(text, data)) {
        refuse(server, command_outcome::malformed);
        logger_error(g_logger, "%s: string_to_uint8_arr: wrong input data!", reader_name);
        return;
    }
    process_command(server, {data, text.size() / 2}, now);
}

static void process_text(WIN_SERVER_t& server, std::string_view text, timeval now)
{
    const size_t size = text.size() / 2;
    if (size <= sizeof(gwCmdID_t)) {
        refuse(server, command_outcome::malformed);
        logger_error(g_logger, "%s: wrong size of input data!", reader_name);
        return;
    }
    if (size <= usual_command) {
        std::array<uint8_t, usual_command> data; // not cleared: what is read is decoded
        return decode_and_run(server, text, data.data(), now);
    }
    const std::unique_ptr<uint8_t[]> data{new (std::nothrow) uint8_t[size]};
    if (!data) {
        refuse(server, command_outcome::out_of_memory);
        logger_error(g_logger, str_out_of_memory, reader_name);
        return;
    }
    decode_and_run(server, text, data.get(), now);
}

// Of a text, what is before its first zero, if it has any.
static std::string_view text_of(bytes_view message)
{
    const char* text = reinterpret_cast<const char*>(message.data());
    return {text, strnlen(text, message.size())};
}

static void tap_command(WIN_SERVER_t& server, bytes_view message, timeval now)
{
    const uint64_t now_us =
        uint64_t{1'000'000} * static_cast<uint64_t>(now.tv_sec) + static_cast<uint64_t>(now.tv_usec);
    server.tap.publish({tap_class::command, tap_direction::down, {0, now_us * 1000}},
                       tap_topic{tap_class::command}, message);
}

static void handle_message(WIN_SERVER_t& server, bytes_view message, timeval now)
{
    if (message.size() > text_limit) {
        refuse(server, command_outcome::malformed);
        logger_error(g_logger, "%s: a text of %zu bytes is too long!", reader_name, message.size());
        return;
    }
    if (server.tap.takes(tap_class::command)) [[unlikely]]
        tap_command(server, message, now);
    const std::string_view text = text_of(message);
    dbg_print(server.dbg_client_sock, DBG_RAW, "PROXY_RAW_INPUT", "%.*s", static_cast<int>(text.size()),
              text.data());
    process_text(server, text, now);
}

int handle_pub_sub_proxy(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    if (any_null(__func__, reader, p_server))
        return 0;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    // Before anything else: even a failed receive is a sign of life.
    server->proxy_is_silent = false;

    void* socket = zsock_resolve(reader);
    message_part part;
    // Never waits for one: the loop may call for a text that a timer before it has taken from the socket, by
    // connecting it again.
    if (!part.receive(socket)) {
        logger_error(g_logger, "%s: zstr_recv return NULL!", __func__);
        return 0;
    }
    const dbg_turn turn;
    reader_call call{*server};
    do {
        timeval now{};
        gettimeofday(&now, nullptr);
        const bytes_view message = part.bytes(); // asked of the library once
        call.note(message.size(), now);
        handle_message(*server, message, now);
    } while (!call.is_over() && part.receive(socket));
    return 0;
}

} // namespace rtls
