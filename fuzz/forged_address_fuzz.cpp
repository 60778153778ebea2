// What keeps senders with forged addresses in bounds: the answers that one address may have in a second, whose
// address is our own, and who may come in by a door, each against a model. The clock is the input's.
#include "fuzzing.h"
#include "net/door.h"
#include "net/own_addresses.h"

#include <ifaddrs.h>

#include <deque>
#include <map>
#include <set>

namespace rtls {

using fuzzing::require;

namespace {

constexpr size_t a_second = 100; // answers
constexpr int64_t second_ms = 1000;

in_addr address_of(uint32_t number)
{
    return {htonl(number)};
}

// One address alone gets exactly its share. Among others it may get less, and never, in any second, more than two
// shares: the end of one and the begin of the next.
class reference_bound {
public:
    explicit reference_bound(uint64_t seed) : m_bound(seed) {}

    void ask(uint32_t address, int64_t now)
    {
        const bool is_allowed = m_bound.allows(address_of(address), now);
        m_askers.insert(address);
        if (m_askers.size() == 1)
            require(is_allowed == expected(now));
        if (!is_allowed)
            return;
        auto& answers = m_answers[address];
        answers.push_back(now);
        if (answers.size() > 2 * a_second) {
            require(now - answers.front() >= second_ms);
            answers.pop_front();
        }
    }

private:
    bool expected(int64_t now)
    {
        if (m_in_second == 0 || now - m_since >= second_ms) {
            m_since = now;
            m_in_second = 0;
        }
        return m_in_second < a_second && ++m_in_second > 0;
    }

    rate_bound m_bound;
    std::set<uint32_t> m_askers;
    std::map<uint32_t, std::deque<int64_t>> m_answers;
    int64_t m_since = 0;
    size_t m_in_second = 0;
};

void check_bound(fuzzing::input& input)
{
    reference_bound bound{input.u8()};
    int64_t now = 0;
    for (unsigned steps = input.u8() % 64; steps > 0 && !input.empty(); --steps) {
        const uint32_t address = input.u8();
        now += input.be16() % (2 * second_ms);
        for (unsigned times = input.u8(); times > 0; --times)
            bound.ask(address, now);
    }
}

std::set<in_addr_t> interface_addresses()
{
    std::set<in_addr_t> addresses;
    ifaddrs* list = nullptr;
    require(getifaddrs(&list) == 0);
    for (const ifaddrs* item = list; item; item = item->ifa_next)
        if (item->ifa_addr && item->ifa_addr->sa_family == AF_INET)
            addresses.insert(reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr.s_addr);
    freeifaddrs(list);
    return addresses;
}

void check_own(uint32_t number)
{
    static const auto addresses = interface_addresses();
    static own_addresses own; // its clock stands still: the system is asked once
    const in_addr address = address_of(number);
    require(own.contain(address, 0) == (number >> 24 == 127 || addresses.contains(address.s_addr)));
}

void check_door(fuzzing::input& input)
{
    door entrance{"fuzz"};
    entrance.rules.most = input.u8() % 8;
    entrance.rules.most_of_one_address = input.u8() % 4;
    const uint32_t network = input.be32();
    const unsigned bits = input.u8() % 34; // 33: no rule
    if (bits <= 32)
        entrance.rules.networks =
            parse_networks(std::to_string(network >> 24) + "." + std::to_string(network >> 16 & 0xFF) + "." +
                           std::to_string(network >> 8 & 0xFF) + "." + std::to_string(network & 0xFF) + "/" +
                           std::to_string(bits));
    require(entrance.rules.networks.has_value() == (bits <= 32));
    uint64_t refused = 0;
    while (!input.empty()) {
        const uint32_t address = network ^ uint32_t { input.be16() } << input.u8() % 17;
        const size_t present = input.u8() % 10;
        const size_t of_address = input.u8() % 5;
        const bool is_inside = bits > 32 || bits == 0 || (address ^ network) >> (32 - bits) == 0;
        const bool may_stay =
            is_inside && (entrance.rules.most == 0 || present < entrance.rules.most) &&
            (entrance.rules.most_of_one_address == 0 || of_address < entrance.rules.most_of_one_address);
        require(entrance.admits(address_of(address), present, of_address, 0) == may_stay);
        refused += may_stay ? 0 : 1;
    }
    require(entrance.refused(door_refusal::network) + entrance.refused(door_refusal::full) +
                entrance.refused(door_refusal::address) ==
            refused);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    check_own(input.be32());
    check_bound(input);
    check_door(input);
    return 0;
}

} // namespace rtls
