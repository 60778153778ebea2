#include "support/socket_options.h"

#include <dlfcn.h>
#include <zmq.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

constexpr auto patience = std::chrono::seconds(10);

// By option; of none that is higher is asked. Noted without memory, which tests take away.
struct noted_value {
    std::atomic<bool> is_set;
    std::atomic<int> value;
};
std::array<noted_value, 128> last_values;
std::mutex closed_mutex;
std::condition_variable closed_changed;
int closed = 0;
std::mutex action_mutex;
std::function<void()> action_on_linger;

void note(int option, const void* value)
{
    if (option < 0 || static_cast<size_t>(option) >= last_values.size())
        return;
    noted_value& noted = last_values[static_cast<size_t>(option)];
    int number = 0;
    std::memcpy(&number, value, sizeof number);
    noted.value = number;
    noted.is_set = true;
}

void act_on_linger()
{
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
    using real_function = int (*)(void*, int, const void*, size_t);
    static const auto real = reinterpret_cast<real_function>(dlsym(RTLD_NEXT, "zmq_setsockopt"));
    const int rc = real(socket, option, value, size);
    if (size == sizeof(int))
        note(option, value);
    if (option == ZMQ_LINGER)
        act_on_linger();
    return rc;
}

extern "C" int zmq_close(void* socket)
{
    using real_function = int (*)(void*);
    static const auto real = reinterpret_cast<real_function>(dlsym(RTLD_NEXT, "zmq_close"));
    const int rc = real(socket);
    const std::lock_guard lock(closed_mutex);
    ++closed;
    closed_changed.notify_all();
    return rc;
}

int socket_options::closed_number()
{
    const std::lock_guard lock(closed_mutex);
    return closed;
}

bool socket_options::wait_for_closing(int more_than)
{
    std::unique_lock lock(closed_mutex);
    return closed_changed.wait_for(lock, patience, [&] { return closed > more_than; });
}

std::optional<int> socket_options::last_value(int option)
{
    const noted_value& noted = last_values.at(static_cast<size_t>(option));
    return noted.is_set ? std::optional<int>{noted.value} : std::nullopt;
}

void socket_options::on_next_linger(std::function<void()> action)
{
    const std::lock_guard lock(action_mutex);
    action_on_linger = std::move(action);
}
