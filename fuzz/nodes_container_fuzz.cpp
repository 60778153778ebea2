// The registry against a plain map: what is found by MAC, by address and by short MAC, which sequence numbers
// are duplicates, how lifetimes run down, and that at the limit the one goes that has been expired for longest.
#include "fuzzing.h"
#include "registry/nodes_container.h"

#include <array>
#include <cstring>
#include <unordered_map>

namespace rtls {

using fuzzing::require;

namespace {

using address_array = std::array<uint8_t, ip_addr_size>;

struct model_node {
    uint8_t sequence_number = 0;
    uint16_t lifetime = 0;
    uint64_t expired_at = 0; // while lifetime is 0
    address_array address{};
    bool forwarded = false;
};

uint64_t key_of(const uint8_t* mac)
{
    uint64_t key = 0;
    std::memcpy(&key, mac, sizeof key);
    return key;
}

// Some begin as nodes' do, some share their last two bytes, many share their place in the table.
mac_array mac_of(unsigned number)
{
    mac_array mac{};
    mac[0] = (number & 0x80) != 0 ? 0x02 : 0xE4;
    mac[4] = number >> 8 & 0xFF;
    mac[5] = static_cast<uint8_t>(33 * (number >> 4 & 7));
    mac[6] = number & 3;
    mac[7] = number >> 2 & 3;
    return mac;
}

// Of anybody, or the one that stands for the MAC.
address_array address_of(unsigned number)
{
    address_array address{};
    if ((number & 1) != 0) {
        const mac_array mac = mac_of(number >> 1);
        std::copy(mac.begin(), mac.end(), address.begin() + 8);
        address[8] = 0;
        address[0] = 0xFE;
    } else {
        address[ip_addr_size - 1] = number >> 1 & 7;
    }
    return address;
}

class fuzzed_world {
public:
    explicit fuzzed_world(size_t limit) : m_limit(limit), m_nodes(limit) {}

    void step(fuzzing::input& input)
    {
        const unsigned what = input.u8();
        if (what % 9 == 8)
            return tick();
        const unsigned number = input.be16();
        const nodes_guard guard{m_nodes};
        switch (what % 9) {
        case 0:
        case 1:
            return find_or_create(mac_of(number), input.u8(), (what & 0x80) != 0);
        case 2:
            return remove(mac_of(number));
        case 3:
            return set_address(mac_of(number), address_of(input.u8()), (what & 0x80) != 0);
        case 4:
            return set_lifetime(mac_of(number), input.u8() % 16);
        case 5:
            return check_address(address_of(number));
        case 6:
            return check_short_mac(mac_of(number));
        default:
            return walk();
        }
    }

    void check_all()
    {
        const nodes_guard guard{m_nodes};
        require(m_nodes.size() == m_model.size() && m_model.size() <= m_limit);
        walk();
    }

private:
    void tick()
    {
        m_nodes.update_lifetime();
        ++m_events;
        for (auto& [key, node] : m_model)
            if (node.lifetime > 0 && --node.lifetime == 0)
                node.expired_at = m_events;
    }

    void find_or_create(const mac_array& mac, uint8_t sequence_number, bool is_numbered)
        RTLS_REQUIRES(m_nodes)
    {
        const auto known = m_model.find(key_of(mac.data()));
        const bool is_duplicate =
            known != m_model.end() && is_numbered && known->second.sequence_number == sequence_number;
        NODE_t* node = m_nodes.find_or_create_by_mac(mac.data(), is_numbered ? &sequence_number : nullptr);
        (void)m_nodes.take_failures(); // which would be logged
        if (known != m_model.end()) {
            if (is_numbered)
                known->second.sequence_number = sequence_number;
            require((node == nullptr) == is_duplicate);
        } else if (m_model.size() == m_limit) {
            displace(node);
        }
        if (node)
            require(key_of(node->mac_addr) == key_of(mac.data()));
        if (known == m_model.end() && node)
            m_model[key_of(mac.data())].expired_at = ++m_events;
    }

    // At the limit: nobody who lives makes room, and nobody who expired later than another.
    void displace(const NODE_t* created) RTLS_REQUIRES(m_nodes)
    {
        uint64_t first = UINT64_MAX;
        for (const auto& [key, node] : m_model)
            if (node.lifetime == 0)
                first = std::min(first, node.expired_at);
        require((created == nullptr) == (first == UINT64_MAX));
        if (!created)
            return;
        const auto gone = std::ranges::find_if(m_model, [&](const auto& entry) RTLS_REQUIRES(m_nodes) {
            return m_nodes.find_by_mac(mac_from(entry.first).data()) == nullptr;
        });
        require(gone != m_model.end() && gone->second.lifetime == 0 && gone->second.expired_at == first);
        m_model.erase(gone);
    }

    static mac_array mac_from(uint64_t key)
    {
        mac_array mac{};
        std::memcpy(mac.data(), &key, sizeof key);
        return mac;
    }

    void remove(const mac_array& mac) RTLS_REQUIRES(m_nodes)
    {
        m_nodes.remove(mac.data());
        m_model.erase(key_of(mac.data()));
        require(m_nodes.find_by_mac(mac.data()) == nullptr);
    }

    // The node in both, or neither.
    model_node* find(const mac_array& mac, NODE_t*& node) RTLS_REQUIRES(m_nodes)
    {
        node = m_nodes.find_by_mac(mac.data());
        const auto known = m_model.find(key_of(mac.data()));
        require((node == nullptr) == (known == m_model.end()));
        if (!node)
            return nullptr;
        require(key_of(node->mac_addr) == known->first);
        return &known->second;
    }

    void set_address(const mac_array& mac, const address_array& address, bool forwarded)
        RTLS_REQUIRES(m_nodes)
    {
        NODE_t* node = nullptr;
        if (model_node* known = find(mac, node)) {
            m_nodes.set_address(*node, address.data(), forwarded);
            known->address = address;
            known->forwarded = forwarded;
        }
    }

    void set_lifetime(const mac_array& mac, uint16_t lifetime) RTLS_REQUIRES(m_nodes)
    {
        NODE_t* node = nullptr;
        if (model_node* known = find(mac, node)) {
            m_nodes.set_lifetime(*node, lifetime);
            if (lifetime == 0 && known->lifetime != 0)
                known->expired_at = ++m_events;
            known->lifetime = lifetime;
        }
    }

    // The first one in the order of the walk of which `accept` holds.
    template <typename Predicate>
    const NODE_t* first_with(Predicate accept) RTLS_REQUIRES(m_nodes)
    {
        for (const NODE_t* node = m_nodes.first(); node; node = m_nodes.next())
            if (accept(*node, m_model.at(key_of(node->mac_addr))))
                return node;
        return nullptr;
    }

    void check_address(const address_array& address) RTLS_REQUIRES(m_nodes)
    {
        const NODE_t* expected = first_with([&](const NODE_t&, const model_node& known) {
            return !known.forwarded && known.address == address;
        });
        mac_array mac{};
        std::copy(address.begin() + 8, address.end(), mac.begin());
        mac[0] = 0xE4;
        if (!expected)
            expected = m_nodes.find_by_mac(mac.data());
        require(m_nodes.find_by_ip(address.data()) == expected);
    }

    void check_short_mac(const mac_array& mac) RTLS_REQUIRES(m_nodes)
    {
        const NODE_t* expected = first_with([&](const NODE_t& node, const model_node&) {
            return node.mac_addr[6] == mac[6] && node.mac_addr[7] == mac[7];
        });
        require(m_nodes.find_by_short_mac(mac[6], mac[7]) == expected);
    }

    // Every node comes once, and is as the model has it.
    void walk() RTLS_REQUIRES(m_nodes)
    {
        size_t count = 0;
        for (const NODE_t* node = m_nodes.first(); node; node = m_nodes.next(), ++count) {
            const auto known = m_model.find(key_of(node->mac_addr));
            require(known != m_model.end() && node->lifetime == known->second.lifetime);
            require(node->forwarded_ip == known->second.forwarded);
            require(std::equal(node->ip_addr, node->ip_addr + ip_addr_size, known->second.address.begin()));
        }
        require(count == m_model.size());
    }

    const size_t m_limit;
    NODES_CONTAINER_t m_nodes;
    std::unordered_map<uint64_t, model_node> m_model;
    uint64_t m_events = 0; // the order in which nodes expire; those of one tick share a number
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const unsigned limit = input.u8();
    fuzzed_world world{(limit & 0x80) != 0 ? 1 + limit % 8 : nodes_container_limit};
    for (size_t steps = 0; !input.empty() && steps < 500; ++steps)
        world.step(input);
    world.check_all();
    return 0;
}

} // namespace rtls
