#include "bridge_link.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace sim {

// What the gateway says first, raw.
static constexpr std::string_view greeting = "sync\n";

bool bridge_link::connect(const sockaddr_in& gateway)
{
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return false;
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    state_ = state::connecting;
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&gateway), sizeof gateway) == 0 ||
        errno == EINPROGRESS)
        return true;
    close();
    return false;
}

void bridge_link::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    state_ = state::down;
    greeted_ = 0;
    out_.clear();
    sent_ = 0;
    in_ = {};
}

void bridge_link::queue(view message)
{
    // What has gone makes room, without moving the rest at every message.
    if (sent_ > 65'536 && sent_ > out_.size() / 2) {
        out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(sent_));
        sent_ = 0;
    }
    append_frame(out_, message);
}

bool bridge_link::flush()
{
    while (sent_ < out_.size()) {
        const ssize_t written = ::send(fd_, out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL);
        if (written < 0)
            return errno == EAGAIN || errno == EINTR;
        sent_ += static_cast<size_t>(written);
        bytes_sent_ += static_cast<uint64_t>(written);
    }
    out_.clear();
    sent_ = 0;
    return true;
}

bool bridge_link::finish_connecting()
{
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
        return false;
    state_ = state::waiting;
    return true;
}

// The greeting may come in pieces; what follows it is framed.
view bridge_link::strip_greeting(view data)
{
    while (state_ == state::waiting && !data.empty()) {
        greeted_ = data[0] == static_cast<uint8_t>(greeting[greeted_]) ? greeted_ + 1 : 0;
        data = data.subspan(1);
        if (greeted_ == greeting.size())
            state_ = state::up;
    }
    return data;
}

bool bridge_link::read(const std::function<void(view)>& received)
{
    std::array<uint8_t, 65'536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (;;) {
        const ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), 0);
        if (got == 0)
            return false;
        if (got < 0)
            return errno == EAGAIN || errno == EINTR;
        in_.feed(strip_greeting(view{buffer}.first(static_cast<size_t>(got))), received);
        if (static_cast<size_t>(got) < buffer.size())
            return true;
    }
}

bool bridge_link::on_ready(bool readable, bool writable, const std::function<void(view)>& received)
{
    if (state_ == state::connecting && writable && !finish_connecting())
        return false;
    if (writable && !flush())
        return false;
    return !readable || read(received);
}

} // namespace sim
