#include "registry/expiry_queue.h"

#include <algorithm>
#include <numeric>
#include <utility>

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
    append(m_expired, m_told);
}

void expiry_queue::add(stored_node& node)
{
    node.lifetime_tick = m_now;
    node.lifetime_end = static_cast<uint16_t>(m_now);
    append(m_expired, node);
}

// A node whose lifetime is left waits in a slot; but for one with more than the longest, which was moved too
// early. That its end is behind it does not show in other nodes: their lifetime would be none by then.
bool expiry_queue::waits_in_slot(const stored_node& node) const
{
    const auto ahead = static_cast<uint16_t>(node.lifetime_end - m_now);
    return node.lifetime > 0 && ahead > 0 && ahead < slot_count;
}

// A node that is settled.
void expiry_queue::leave(stored_node& node)
{
    unlink(node);
    if (!waits_in_slot(node))
        return;
    --m_sizes[node.lifetime_end % slot_count];
}

void expiry_queue::remove(stored_node& node)
{
    settle(node);
    leave(node);
}

void expiry_queue::wait_in_slot(stored_node& node)
{
    const size_t wait = std::min<size_t>(node.lifetime, slot_count - 1);
    node.lifetime_end = static_cast<uint16_t>(m_now + wait);
    append(m_slots[node.lifetime_end % slot_count], node);
    ++m_sizes[node.lifetime_end % slot_count];
}

void expiry_queue::set_lifetime(stored_node& node, uint16_t lifetime)
{
    settle(node);
    if (node.lifetime == lifetime && lifetime == 0)
        return;
    leave(node);
    node.lifetime = lifetime;
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

size_t expiry_queue::living() const
{
    return std::accumulate(m_sizes.begin(), m_sizes.end(), size_t{0});
}

void expiry_queue::tick()
{
    ++m_now;
    append_all(m_expired, m_slots[m_now % slot_count]);
    m_sizes[m_now % slot_count] = 0;
}

// A node in the list of those that have. False when it was moved there too early: it waits in a slot again.
bool expiry_queue::has_expired(stored_node& node)
{
    settle(node);
    if (node.lifetime == 0)
        return true;
    unlink(node);
    wait_in_slot(node);
    return false;
}

stored_node* expiry_queue::longest_expired()
{
    for (expiry_link* link = m_expired.next; link != &m_expired;) {
        expiry_link& present = *std::exchange(link, link->next);
        if (&present == &m_told)
            continue;
        auto& node = static_cast<stored_node&>(present);
        if (has_expired(node))
            return &node;
    }
    return nullptr;
}

stored_node* expiry_queue::next_newly_expired()
{
    while (m_told.next != &m_expired) {
        auto& node = static_cast<stored_node&>(*m_told.next);
        unlink(m_told);
        append(*node.next, m_told); // right behind the node
        if (has_expired(node))
            return &node;
    }
    return nullptr;
}

void expiry_queue::pass_over_expired()
{
    unlink(m_told);
    append(m_expired, m_told);
}

} // namespace rtls
