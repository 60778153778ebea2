#include "terminal/reply.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace rtls {

// A null frame would be "sent" with success, so it is refused here.
static bool send_identity(zframe_t* id, zsock_t* sock) noexcept
{
    return id && zframe_send(&id, sock, ZFRAME_MORE | ZFRAME_REUSE) == 0;
}

terminal_reply::terminal_reply(zframe_t* id, zsock_t* sock) noexcept
    : m_sock(send_identity(id, sock) ? sock : nullptr)
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

bool terminal_send(zframe_t* id, zsock_t* sock, const char* text) noexcept
{
    terminal_reply reply{id, sock};
    const bool addressed{reply};
    reply.send(text);
    return addressed;
}

std::string text_format(const char* format, ...)
{
    char line[512]; // nearly all texts fit
    va_list args;
    va_start(args, format);
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
