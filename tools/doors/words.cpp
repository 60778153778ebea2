#include "doors/words.h"

#include <algorithm>

namespace ctl {

static constexpr char blanks[] = " \t\r";

std::string trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return std::string{text.substr(begin, text.find_last_not_of(blanks) - begin + 1)};
}

std::vector<std::string> words_of(std::string_view text)
{
    constexpr char between[] = " \t\r,";
    std::vector<std::string> words;
    for (size_t at = text.find_first_not_of(between); at != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(between, at), text.size());
        words.emplace_back(text.substr(at, end - at));
        at = text.find_first_not_of(between, end);
    }
    return words;
}

} // namespace ctl
