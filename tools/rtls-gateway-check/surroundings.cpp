#include "rtls-gateway-check/surroundings.h"

#include <ifaddrs.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <future>
#include <thread>

namespace rtls::check {

static constexpr uint32_t loopback_network = 127;
static constexpr unsigned host_bits = 24;

// As the messaging library asks: IPv4 alone.
static std::optional<std::string> why_unresolved(const std::string& name)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
    if (error != 0)
        return gai_strerror(error);
    freeaddrinfo(found);
    return std::nullopt;
}

// A thread for each name, which is left behind if the name server stays silent: nothing ends its wait.
std::vector<std::optional<std::string>> this_machine::resolve(const std::vector<std::string>& names) const
{
    const auto deadline = std::chrono::steady_clock::now() + m_patience;
    std::vector<std::future<std::optional<std::string>>> answers;
    for (const std::string& name : names) {
        std::packaged_task<std::optional<std::string>()> task{[name] { return why_unresolved(name); }};
        answers.push_back(task.get_future());
        std::thread{std::move(task)}.detach();
    }
    std::vector<std::optional<std::string>> reasons;
    for (auto& answer : answers) {
        if (answer.wait_until(deadline) == std::future_status::ready)
            reasons.push_back(answer.get());
        else
            reasons.emplace_back("no name server has answered within " + std::to_string(m_patience.count()) +
                                 " ms");
    }
    return reasons;
}

bool this_machine::has_address(in_addr address) const
{
    if (ntohl(address.s_addr) >> host_bits == loopback_network)
        return true;
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0)
        return true; // who cannot tell does not accuse
    bool is_own = false;
    for (const ifaddrs* one = all; one != nullptr && !is_own; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET)
            continue;
        sockaddr_in own{};
        memcpy(&own, one->ifa_addr, sizeof own);
        is_own = own.sin_addr.s_addr == address.s_addr;
    }
    freeifaddrs(all);
    return is_own;
}

file_facts this_machine::look_at(const std::string& path) const
{
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0)
        return {};
    return {.is_there = true,
            .is_folder = S_ISDIR(facts.st_mode),
            .is_for_all_to_write = (facts.st_mode & S_IWOTH) != 0,
            .is_for_all_to_read = (facts.st_mode & S_IROTH) != 0};
}

std::optional<uint64_t> this_machine::most_files() const
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return std::nullopt;
    return limit.rlim_max;
}

std::optional<int64_t> this_machine::most_waiting() const
{
    std::ifstream file{"/proc/sys/net/core/somaxconn"};
    int64_t number = 0;
    if (file >> number)
        return number;
    return std::nullopt;
}

} // namespace rtls::check
