#include "tap/tap_payloads.h"

#include <cstdint>
#include <cstdlib>

namespace rtls {

namespace {

// Stands before the payload's bytes.
struct held_payload {
    std::atomic<size_t>* held;
    size_t size;
};

} // namespace

static void let_go(void* /*bytes*/, void* p_payload) noexcept
{
    const auto* payload = static_cast<const held_payload*>(p_payload);
    payload->held->fetch_sub(payload->size, std::memory_order_relaxed);
    std::free(p_payload);
}

message_part tap_payloads::copy_large(bytes_view payload) noexcept
{
    void* memory =
        held() + payload.size() > large_bound ? nullptr : std::malloc(sizeof(held_payload) + payload.size());
    if (!memory)
        return message_part{message_part::not_made{}};
    auto* large = new (memory) held_payload{&m_held, payload.size()};
    const bytes_span bytes{reinterpret_cast<uint8_t*>(large + 1), payload.size()};
    store_bytes(bytes, 0, payload);
    m_held.fetch_add(payload.size(), std::memory_order_relaxed);
    return message_part{bytes, let_go, large};
}

} // namespace rtls
