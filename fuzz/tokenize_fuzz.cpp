// An operator's line cut into words, and his numbers, each against the plain way.
#include "base/tokenize.h"
#include "fuzzing.h"
#include "terminal/request.h"

#include <cctype>
#include <optional>

namespace rtls {

using fuzzing::require;

namespace {

struct word {
    size_t at;
    std::string text;
};

std::vector<word> words_in(const std::string& line, size_t most)
{
    static constexpr char between[] = " \t\n\r";
    std::vector<word> words;
    for (size_t at = line.find_first_not_of(between); at != std::string::npos && words.size() < most;) {
        const size_t end = std::min(line.find_first_of(between, at), line.size());
        words.push_back({at, line.substr(at, end - at)});
        at = line.find_first_not_of(between, end);
    }
    return words;
}

// By strtol's rules for base 16, on a number of any length.
std::optional<uint16_t> plain_number(std::string text)
{
    text.erase(0, text.find_first_not_of(" \t\n\v\f\r"));
    const bool is_negative = text.starts_with('-');
    if (is_negative || text.starts_with('+'))
        text.erase(0, 1);
    const auto digit_at = [&](size_t at) {
        return at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])) != 0;
    };
    if ((text.starts_with("0x") || text.starts_with("0X")) && digit_at(2))
        text.erase(0, 2);
    if (!digit_at(0))
        return std::nullopt;
    constexpr uint64_t least = uint64_t{1} << 63; // as an amount
    uint64_t amount = 0;
    for (size_t i = 0; digit_at(i); ++i) {
        if (amount >> 60 != 0)
            return std::nullopt;
        amount = amount << 4 | std::stoul(text.substr(i, 1), nullptr, 16);
    }
    if (amount > least || (amount == least && !is_negative))
        return std::nullopt;
    return static_cast<uint16_t>(is_negative ? 0 - amount : amount);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const uint16_t most = input.u8() % 20;
    std::vector<char> line = fuzzing::terminated(input.text(size));
    const std::string given = line.data();
    std::vector<char*> words(most);
    words.shrink_to_fit();
    char* none = nullptr;
    uint16_t count = 0;
    tokenize(line.data(), &count, words.empty() ? &none : words.data(), most);

    const auto expected = words_in(given, most);
    require(count == expected.size());
    size_t end = 0;
    for (size_t i = 0; i < count; ++i) {
        require(words[i] == line.data() + expected[i].at && words[i] == expected[i].text);
        require(get_short_val_from_str(words[i]) == plain_number(expected[i].text));
        end = expected[i].at + expected[i].text.size() + 1;
    }
    if (count == most) // the rest of the line is as it was
        for (size_t i = end; i < given.size(); ++i)
            require(line[i] == given[i]);
    return 0;
}

} // namespace rtls
