#include "rtls-tail/reassembly.h"

#include <algorithm>
#include <utility>

namespace tail {

using rtls::bytes_view;

static constexpr size_t waiting_limit = size_t{1} << 20;
static constexpr uint64_t patience_ns = 5'000'000'000;
static constexpr int64_t farthest = int64_t{1} << 26; // of sequence numbers: no window is as large

void reassembly::begin(uint32_t sequence)
{
    if (has_begun_with(sequence))
        return;
    *this = {};
    m_first = m_next = sequence;
}

// The longest of those that begin at the same place.
void reassembly::keep(uint64_t at, uint64_t clock_ns, bytes_view bytes)
{
    piece& it = m_waiting[at];
    if (it.bytes.size() >= bytes.size())
        return;
    m_waiting_bytes += bytes.size() - it.bytes.size();
    it.clock_ns = clock_ns;
    it.bytes.assign(bytes.begin(), bytes.end());
}

void reassembly::take_ready(std::vector<piece>& ready)
{
    while (!m_waiting.empty() && m_waiting.begin()->first <= m_at) {
        auto first = m_waiting.extract(m_waiting.begin());
        piece& it = first.mapped();
        m_waiting_bytes -= it.bytes.size();
        const uint64_t known = m_at - first.key();
        if (known >= it.bytes.size())
            continue;
        it.bytes.erase(it.bytes.begin(), it.bytes.begin() + static_cast<std::ptrdiff_t>(known));
        it.missing = std::exchange(m_missing, 0);
        it.follows_gap = std::exchange(m_follows_gap, false);
        m_at += it.bytes.size();
        m_next = *m_next + static_cast<uint32_t>(it.bytes.size());
        ready.push_back(std::move(it));
    }
}

void reassembly::skip_gap()
{
    const uint64_t gap = m_waiting.begin()->first - m_at;
    m_missing += gap;
    m_follows_gap = true;
    m_at += gap;
    m_next = *m_next + static_cast<uint32_t>(gap);
}

bool reassembly::waits_too_long(uint64_t clock_ns) const
{
    const uint64_t since = m_waiting.empty() ? clock_ns : m_waiting.begin()->second.clock_ns;
    return m_waiting_bytes > waiting_limit || (clock_ns > since && clock_ns - since > patience_ns);
}

std::vector<reassembly::piece> reassembly::add(uint32_t sequence, uint64_t clock_ns, bytes_view bytes)
{
    std::vector<piece> ready;
    if (bytes.empty())
        return ready;
    if (!m_next)
        m_next = sequence;
    int64_t ahead = static_cast<int32_t>(sequence - *m_next); // numbers wrap
    if (ahead > farthest || ahead < -farthest) {
        ready = give_up();
        m_next = sequence;
        m_follows_gap = true;
        ahead = 0;
    }
    if (ahead < 0) { // all of it, or its beginning, is known
        bytes = bytes.subspan(std::min(bytes.size(), static_cast<size_t>(-ahead)));
        ahead = 0;
    }
    if (!bytes.empty())
        keep(m_at + static_cast<uint64_t>(ahead), clock_ns, bytes);
    take_ready(ready);
    while (!m_waiting.empty() && waits_too_long(clock_ns)) {
        skip_gap();
        take_ready(ready);
    }
    return ready;
}

std::vector<reassembly::piece> reassembly::give_up()
{
    std::vector<piece> ready;
    while (!m_waiting.empty()) {
        skip_gap();
        take_ready(ready);
    }
    return ready;
}

} // namespace tail
