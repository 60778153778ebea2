#include "terminal/reply.h"

#include "base/peer.h"
#include "net/stream_send.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace rtls {

// The wait is for those who read, when many frames come at once. A client that does not read would cost the
// others a time-out for each frame; so would one that has left while commands of his wait to be handled.
static bool address_client(TERMINAL_CLIENT_t& client, zsock_t* sock) noexcept
{
    if (!client.id)
        return false;
    const bytes_view id = frame_bytes(client.id.get());
    const bool is_sent =
        stream_send_identity(sock, id, when_full::give_up) ||
        (errno == EAGAIN && client.takes_frames && stream_send_identity(sock, id, when_full::wait));
    client.takes_frames = is_sent;
    return is_sent;
}

terminal_reply::terminal_reply(TERMINAL_CLIENT_t& client, zsock_t* sock) noexcept
    : m_sock(address_client(client, sock) ? sock : nullptr)
{
}

static bytes_view text_bytes(const char* text) noexcept
{
    return {reinterpret_cast<const uint8_t*>(text), strlen(text)};
}

terminal_reply::~terminal_reply()
{
    send("\n");
}

void terminal_reply::send(const char* text) noexcept
{
    zsock_t* sock = std::exchange(m_sock, nullptr);
    if (!sock)
        return;
    message_part whole{text_bytes(text)};
    message_part line_end{text_bytes("\n")}; // so short that it takes no memory
    stream_send_bytes(sock, whole.is_made() ? whole : line_end);
}

bool terminal_send(TERMINAL_CLIENT_t& client, zsock_t* sock, const char* text) noexcept
{
    terminal_reply reply{client, sock};
    const bool addressed{reply};
    reply.send(text);
    return addressed;
}

std::string text_format(const char* format, ...)
{
    char line[512]; // nearly all texts fit
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it loses track of this one, too
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    const size_t size = length < 0 ? 0 : static_cast<size_t>(length);
    if (size < sizeof line)
        return {line, size};

    std::string text(size, '\0');
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it loses track of the second va_start
    vsnprintf(text.data(), size + 1, format, args);
    va_end(args);
    return text;
}

} // namespace rtls
