#include "terminal/reply.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace rtls {

// A null frame would be "sent" with success, so it is refused here.
static bool send_identity(zframe_t* id, zsock_t* sock, int flags) noexcept
{
    return id && zframe_send(&id, sock, ZFRAME_MORE | ZFRAME_REUSE | flags) == 0;
}

// The wait is for those who read, when many frames come at once. A client that does not read would cost the
// others a time-out for each frame; so would one that has left while commands of his wait to be handled.
static bool address_client(TERMINAL_CLIENT_t& client, zsock_t* sock) noexcept
{
    const bool is_sent = send_identity(client.id.get(), sock, ZFRAME_DONTWAIT) ||
                         (errno == EAGAIN && client.takes_frames && send_identity(client.id.get(), sock, 0));
    client.takes_frames = is_sent;
    return is_sent;
}

terminal_reply::terminal_reply(TERMINAL_CLIENT_t& client, zsock_t* sock) noexcept
    : m_sock(address_client(client, sock) ? sock : nullptr)
{
}

terminal_reply::~terminal_reply()
{
    send("\n");
}

void terminal_reply::send(const char* text) noexcept
{
    if (zsock_t* sock = std::exchange(m_sock, nullptr))
        zstr_sendm(sock, text); // "more" means nothing here, and makes a text without addressee fail
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
