#include "downlink/spam_filter.h"

#include "base/bytes.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "registry/nodes_container.h"

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

// What there is to say of a command for the node with this MAC. Takes the lock, and logs nothing.
static verdict judge(NODES_CONTAINER_t& nodes, bytes_view command, const uint8_t* mac, timeval now)
{
    const nodes_guard guard{nodes};
    NODE_t* node = nodes.find_by_mac(mac);
    if (!node)
        return verdict::passes;
    // The time moves on with repeats, too: a steady stream of them stays suppressed.
    const timeval last = std::exchange(node->last_data_time, now);
    if (is_within_repeat_interval(last, now) && is_last_command(*node, command))
        return verdict::repeats;
    return remember_command(*node, command) ? verdict::passes : verdict::out_of_memory;
}

bool spam_filter(NODES_CONTAINER_t& nodes, bytes_view data, timeval now)
{
    if (data.size() < proxy_command_min)
        return false;
    const bytes_view command = data.first(data.size() - mac_size);
    const verdict found = judge(nodes, command, data.last(mac_size).data(), now);
    if (found == verdict::out_of_memory)
        logger_error(g_logger, str_out_of_memory, __func__);
    return found == verdict::repeats;
}

bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now)
{
    return !any_null(__func__, p_nodes, data) &&
           spam_filter(*static_cast<NODES_CONTAINER_t*>(p_nodes), {data, data_size}, now);
}

} // namespace rtls
