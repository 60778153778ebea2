// closed_ids - the identities of connections that the gateway itself closed.
//
// ZeroMQ sends no notice of a connection that we close, except when the notice was already on its way:
// then an empty frame comes from an identity that is no longer known, and looks just like a new
// connection. Remembering what we closed tells the two apart.
//
// ZeroMQ never uses an identity twice, so an entry whose notice never comes does no harm and may be
// forgotten at any time: two generations of bounded size replace a queue.
// Ownership  Copies of the identities, up to two generations of them.
// Threads    None of its own: the WIN server's thread. Nothing waits.
// Failures   Nothing throws; an identity that memory is too short for is not remembered.
#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <utility>

namespace rtls {

class closed_id_set {
public:
    // Between one and two times as many are remembered at most.
    static constexpr size_t generation_size = 8192;

    void remember(const char* id) noexcept
    {
        try {
            if (m_recent.size() >= generation_size)
                m_older = std::exchange(m_recent, {});
            m_recent.emplace(id);
        } catch (const std::bad_alloc&) {
            return; // at worst the late notice passes for a connection, until supervision closes it
        }
    }

    // Whether `id` was remembered; it no longer is.
    bool forget(const char* id) noexcept
    {
        if (empty())
            return false;
        return take(m_recent, id) || take(m_older, id);
    }

    bool empty() const noexcept { return m_recent.empty() && m_older.empty(); }
    size_t size() const noexcept { return m_recent.size() + m_older.size(); }

private:
    using id_set = std::set<std::string, std::less<>>;

    static bool take(id_set& ids, const char* id)
    {
        const auto found = ids.find(id);
        if (found == ids.end())
            return false;
        ids.erase(found);
        return true;
    }

    id_set m_recent;
    id_set m_older;
};

} // namespace rtls
