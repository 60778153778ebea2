#include "terminal/reply.h"

#include "base/peer.h"
#include "base/stream_send.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace rtls {

terminal_reply::terminal_reply(zframe_t* id, zsock_t* sock) noexcept
    : m_sock(id && stream_send_identity(sock, frame_bytes(id), when_full::wait) ? sock : nullptr)
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
