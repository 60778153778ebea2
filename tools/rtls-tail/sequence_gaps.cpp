#include "rtls-tail/sequence_gaps.h"

namespace tail {

static constexpr size_t most_nodes = 500'000;
static constexpr uint8_t half = 128;
static constexpr uint8_t overtaken = 16;

void sequence_gaps::note(const std::string& node, uint8_t number)
{
    if (m_last.size() >= most_nodes)
        m_last.clear();
    const auto [entry, is_new] = m_last.try_emplace(node, number);
    if (is_new)
        return;
    const auto ahead = static_cast<uint8_t>(number - entry->second); // 255 is followed by 0
    const auto behind = static_cast<uint8_t>(entry->second - number);
    if (ahead == 0)
        ++m_counts.repeats;
    else if (ahead > half && behind <= overtaken)
        ++m_counts.late;
    else {
        entry->second = number;
        if (ahead > half)
            ++m_counts.resets;
        else if (ahead > 1) {
            ++m_counts.gaps;
            m_counts.missing += ahead - 1U;
        }
    }
}

} // namespace tail
