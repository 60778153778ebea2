#include "rtls-gateway-check/nearest.h"

#include <algorithm>
#include <cctype>

namespace rtls::check {

// More than this is another word.
static constexpr size_t most_slips = 2;
static constexpr size_t letters_per_slip = 3;
static constexpr size_t longest_word = 64; // the cost grows with the square

static std::string plain(std::string_view word)
{
    std::string text{word};
    for (char& c : text)
        c = c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

size_t distance(std::string_view one, std::string_view other)
{
    const std::string from = plain(one);
    const std::string to = plain(other);
    std::vector<size_t> before(to.size() + 1);
    std::vector<size_t> last(to.size() + 1);
    std::vector<size_t> row(to.size() + 1);
    for (size_t i = 0; i <= to.size(); ++i)
        last[i] = i;
    for (size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t changed = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, changed});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

std::string_view nearest(std::string_view word, std::span<const std::string_view> known)
{
    if (word.size() > longest_word)
        return {};
    std::string_view found;
    size_t slips = std::min(most_slips, word.size() / letters_per_slip) + 1;
    for (const std::string_view candidate : known) {
        const size_t apart = distance(word, candidate);
        if (apart < slips) {
            slips = apart;
            found = candidate;
        }
    }
    return found;
}

} // namespace rtls::check
