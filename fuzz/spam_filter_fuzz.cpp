// The filter of repeated commands against a model: what came last to each node, and when.
#include "downlink/spam_filter.h"
#include "fuzzing.h"
#include "registry/nodes_container.h"

#include <array>
#include <utility>

namespace rtls {

using fuzzing::require;

namespace {

constexpr size_t known_nodes = 4; // and some more commands are for nodes that nobody knows
constexpr int64_t repeat_us = 50'000;

namespace what {
constexpr unsigned node = 0x07;
constexpr unsigned same = 0x08;   // the command is the one before, with another sequence number
constexpr unsigned change = 0x10; // and one of its bytes is another
constexpr unsigned back = 0x20;   // the clock is set back
constexpr unsigned seconds = 0x40;
constexpr unsigned no_mac = 0x80; // the command is all that there is
} // namespace what

struct last_command {
    std::vector<uint8_t> bytes;
    int64_t at_us = 0;
};

mac_array mac_of(size_t number)
{
    return {0xE4, 1, 2, 3, 4, 5, 6, static_cast<uint8_t>(number)};
}

// Whether both are the same but for their sequence number.
bool is_repeat(std::vector<uint8_t> a, std::vector<uint8_t> b)
{
    a[msgGeneric_t::seqNo] = b[msgGeneric_t::seqNo] = 0;
    return a == b;
}

struct fuzzed_world {
    NODES_CONTAINER_t nodes;
    std::array<last_command, known_nodes> last;
    int64_t now_us = 1'000'000'000;

    fuzzed_world()
    {
        const nodes_guard guard{nodes};
        for (size_t i = 0; i < known_nodes; ++i)
            nodes.find_or_create_by_mac(mac_of(i).data(), nullptr);
    }

    bool expected(size_t node, const std::vector<uint8_t>& command)
    {
        if (node >= known_nodes || command.size() < msgGeneric_t::size)
            return false;
        const int64_t passed = now_us - std::exchange(last[node].at_us, now_us);
        const auto before = std::exchange(last[node].bytes, command);
        return passed >= 0 && passed < repeat_us && before.size() == command.size() &&
               is_repeat(before, command);
    }

    void pass_time(unsigned options, int64_t amount)
    {
        const int64_t passed = amount * ((options & what::seconds) != 0 ? 1'000'000 : 1000);
        now_us += (options & what::back) != 0 ? -passed : passed;
    }

    void step(fuzzing::input& input, std::vector<uint8_t>& command)
    {
        const unsigned options = input.u8();
        pass_time(options, input.u8());
        if ((options & what::same) == 0)
            command = input.copy(input.u8() % 32);
        if (command.size() > msgGeneric_t::seqNo)
            command[msgGeneric_t::seqNo] = input.u8();
        if ((options & what::change) != 0 && !command.empty())
            command[input.u8() % command.size()] ^= 1;
        check(options, command);
    }

    void check(unsigned options, const std::vector<uint8_t>& command)
    {
        const size_t node = options & what::node;
        std::vector<uint8_t> data = command;
        const mac_array mac = mac_of(node);
        if ((options & what::no_mac) == 0)
            data.insert(data.end(), mac.begin(), mac.end());
        else if (data.size() >= proxy_command_min)
            return; // its last bytes would be some MAC
        data.shrink_to_fit();
        const timeval now{now_us / 1'000'000, now_us % 1'000'000};
        const bool repeats = spam_filter(&nodes, data.data(), data.size(), now);
        require(repeats == ((options & what::no_mac) == 0 && expected(node, command)));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    fuzzed_world world;
    std::vector<uint8_t> command;
    while (!input.empty())
        world.step(input, command);
    return 0;
}

} // namespace rtls
