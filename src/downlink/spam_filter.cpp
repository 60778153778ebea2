#include "downlink/spam_filter.h"

#include "base/bytes.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "registry/nodes_container.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

namespace rtls {

static constexpr suseconds_t repeat_interval_us = 50'000;
static constexpr suseconds_t us_per_second = 1'000'000;

// A clock that was set back makes no repeat.
static bool is_within_repeat_interval(timeval earlier, timeval now)
{
    time_t seconds = now.tv_sec - earlier.tv_sec;
    suseconds_t microseconds = now.tv_usec - earlier.tv_usec;
    if (microseconds < 0) {
        microseconds += us_per_second;
        seconds -= 1;
    }
    return seconds == 0 && microseconds < repeat_interval_us;
}

// Commands up to this size are kept as they are: nearly all. A larger one may have 128 KiB, for each node.
static constexpr size_t kept_whole = 512;

namespace {

namespace digest {         // kept of a larger command
constexpr size_t head = 0; // its type and sequence number
constexpr size_t command_size = 3;
constexpr size_t hash = 11; // of all that follows its head
constexpr size_t size = 19;
static_assert(command_size == msgGeneric_t::seqNo + 1 && hash == command_size + sizeof(uint64_t) &&
              size == hash + sizeof(uint64_t));
} // namespace digest

} // namespace

// Seeded, so that nobody can send two that agree; by accident they do once in 2^64.
static uint64_t hash_of(bytes_view bytes)
{
    uint64_t hash = bytes.size();
    for (; !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), sizeof hash))) {
        uint64_t word = 0;
        std::memcpy(&word, bytes.data(), std::min(bytes.size(), sizeof word));
        hash = seeded_hash(word, hash);
    }
    return hash;
}

static std::array<uint8_t, digest::size> digest_of(bytes_view command)
{
    std::array<uint8_t, digest::size> made{};
    const uint64_t size = command.size();
    const uint64_t hash = hash_of(command.subspan(digest::command_size));
    std::memcpy(made.data() + digest::head, command.data(), digest::command_size);
    std::memcpy(made.data() + digest::command_size, &size, sizeof size);
    std::memcpy(made.data() + digest::hash, &hash, sizeof hash);
    return made;
}

// Whether `command` is the node's last one. Sequence numbers (byte 2, whatever it is in this type) do not
// count: the newer one replaces the stored one before the comparison.
static bool is_last_command(NODE_t& node, bytes_view command)
{
    if (node.last_data.size() != command.size())
        return false;
    if (std::memcmp(node.last_data.data(), command.data(), sizeof(gwCmdID_t)) != 0)
        return false;
    node.last_data[msgGeneric_t::seqNo] = command[msgGeneric_t::seqNo];
    return std::memcmp(node.last_data.data(), command.data(), command.size()) == 0;
}

// False when memory is short: the node keeps its last command.
static bool remember_command(NODE_t& node, bytes_view command) noexcept
try {
    node.last_data.assign(command.begin(), command.end());
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

namespace {

enum class verdict { passes, repeats, out_of_memory };

} // namespace

static verdict judge_locked(NODE_t& node, bytes_view command, timeval now)
{
    // The time moves on with repeats, too: a steady stream of them stays suppressed.
    const timeval last = std::exchange(node.last_data_time, now);
    if (is_within_repeat_interval(last, now) && is_last_command(node, command))
        return verdict::repeats;
    return remember_command(node, command) ? verdict::passes : verdict::out_of_memory;
}

// What there is to say of a command for the node with this MAC, and how the node is reached. Takes the lock, and
// logs nothing.
static verdict judge(NODES_CONTAINER_t& nodes, bytes_view command, const uint8_t* mac, timeval now,
                     looked_up_node& found)
{
    const nodes_guard guard{nodes};
    const uint8_t growth = nodes.growth();
    NODE_t* node = nodes.find_by_mac(mac);
    found.stands = nodes.growth() == growth;
    if (!node)
        return verdict::passes;
    const verdict judged = judge_locked(*node, command, now);
    if (judged != verdict::repeats && found.stands)
        found.route.emplace(route_of(*node));
    return judged;
}

bool spam_filter(NODES_CONTAINER_t& nodes, bytes_view data, timeval now, looked_up_node& node)
{
    if (data.size() < proxy_command_min)
        return false;
    const bytes_view command = data.first(data.size() - mac_size);
    std::array<uint8_t, digest::size> of_large{};
    const bool is_large = command.size() > kept_whole;
    if (is_large)
        of_large = digest_of(command);
    const verdict found =
        judge(nodes, is_large ? bytes_view{of_large} : command, data.last(mac_size).data(), now, node);
    if (found == verdict::out_of_memory)
        logger_error(g_logger, str_out_of_memory, __func__);
    return found == verdict::repeats;
}

bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now)
{
    looked_up_node node;
    return !any_null(__func__, p_nodes, data) &&
           spam_filter(*static_cast<NODES_CONTAINER_t*>(p_nodes), {data, data_size}, now, node);
}

} // namespace rtls
