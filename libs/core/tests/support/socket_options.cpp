#include "support/socket_options.h"

#include <dlfcn.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

std::atomic<int> last_linger{-2};
std::mutex action_mutex;
std::function<void()> action_on_linger;

void note_linger(const void* value)
{
    int linger = 0;
    std::memcpy(&linger, value, sizeof linger);
    last_linger = linger;
    std::function<void()> action;
    {
        const std::lock_guard lock(action_mutex);
        action = std::exchange(action_on_linger, nullptr);
    }
    if (action)
        action();
}

} // namespace

extern "C" int zmq_setsockopt(void* socket, int option, const void* value, size_t size)
{
    using function_t = int (*)(void*, int, const void*, size_t);
    static const auto real = reinterpret_cast<function_t>(dlsym(RTLD_NEXT, "zmq_setsockopt"));
    const int rc = real(socket, option, value, size);
    if (option == ZMQ_LINGER && size == sizeof(int))
        note_linger(value);
    return rc;
}

int socket_options::last_linger_ms()
{
    return last_linger;
}

void socket_options::on_next_linger(std::function<void()> action)
{
    const std::lock_guard lock(action_mutex);
    action_on_linger = std::move(action);
}
