#include "registry/expiry_queue.h"

#include <algorithm>

namespace rtls {

static void make_empty(expiry_link& list)
{
    list.previous = list.next = &list;
}

static bool is_empty(const expiry_link& list)
{
    return list.next == &list;
}

static void append(expiry_link& list, expiry_link& link)
{
    link.previous = list.previous;
    link.next = &list;
    list.previous->next = &link;
    list.previous = &link;
}

static void unlink(expiry_link& link)
{
    link.previous->next = link.next;
    link.next->previous = link.previous;
    link.previous = link.next = nullptr;
}

// Moves all links of `from`, in their order, to the end of `list`.
static void append_all(expiry_link& list, expiry_link& from)
{
    if (is_empty(from))
        return;
    from.next->previous = list.previous;
    list.previous->next = from.next;
    from.previous->next = &list;
    list.previous = from.previous;
    make_empty(from);
}

expiry_queue::expiry_queue()
{
    for (auto& slot : m_slots)
        make_empty(slot);
    make_empty(m_expired);
}

void expiry_queue::add(stored_node& node)
{
    node.lifetime_tick = m_now;
    append(m_expired, node);
}

void expiry_queue::remove(stored_node& node)
{
    unlink(node);
}

void expiry_queue::wait_in_slot(stored_node& node)
{
    const size_t wait = std::min<size_t>(node.lifetime, slot_count - 1);
    append(m_slots[(m_now + wait) % slot_count], node);
}

void expiry_queue::set_lifetime(stored_node& node, uint16_t lifetime)
{
    settle(node);
    if (node.lifetime == lifetime && lifetime == 0)
        return;
    node.lifetime = lifetime;
    unlink(node);
    if (lifetime == 0)
        append(m_expired, node);
    else
        wait_in_slot(node);
}

void expiry_queue::settle(stored_node& node) const
{
    const uint32_t passed = m_now - node.lifetime_tick;
    node.lifetime = passed < node.lifetime ? static_cast<uint16_t>(node.lifetime - passed) : uint16_t{0};
    node.lifetime_tick = m_now;
}

void expiry_queue::tick()
{
    ++m_now;
    append_all(m_expired, m_slots[m_now % slot_count]);
}

stored_node* expiry_queue::longest_expired()
{
    while (!is_empty(m_expired)) {
        auto& node = static_cast<stored_node&>(*m_expired.next);
        settle(node);
        if (node.lifetime == 0)
            return &node;
        unlink(node);
        wait_in_slot(node);
    }
    return nullptr;
}

} // namespace rtls
