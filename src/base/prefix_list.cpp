#include "base/prefix_list.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

namespace rtls {

static constexpr unsigned int bits_per_byte = 8;

// How many of the eight bits of byte `index` a prefix of `bits` covers, as a mask.
static uint8_t mask_of_byte(size_t index, unsigned int bits)
{
    const auto before = static_cast<unsigned int>(index) * bits_per_byte;
    if (bits <= before)
        return 0;
    const unsigned int covered = std::min(bits - before, bits_per_byte);
    return static_cast<uint8_t>(0xFFU << (bits_per_byte - covered));
}

void prefix_list::add(bytes_view value, unsigned int bits)
{
    entry added{};
    for (size_t i = 0; i < value.size() && i < longest; ++i) {
        added.mask[i] = mask_of_byte(i, bits);
        added.value[i] = value[i] & added.mask[i];
    }
    m_entries.push_back(added);
}

bool prefix_list::contains(bytes_view value) const noexcept
{
    const auto begins_with = [value](const entry& e) {
        for (size_t i = 0; i < value.size() && i < longest; ++i)
            if ((value[i] & e.mask[i]) != e.value[i])
                return false;
        return true;
    };
    return std::any_of(m_entries.begin(), m_entries.end(), begins_with);
}

bool prefix_list::contains(in_addr address) const noexcept
{
    std::array<uint8_t, sizeof address.s_addr> bytes{};
    std::memcpy(bytes.data(), &address.s_addr, bytes.size());
    return contains(bytes_view{bytes});
}

// --- reading

static std::optional<std::array<uint8_t, 4>> read_ipv4(std::string_view text)
{
    std::array<uint8_t, 4> bytes{};
    if (inet_pton(AF_INET, std::string{text}.c_str(), bytes.data()) != 1)
        return std::nullopt;
    return bytes;
}

static std::optional<std::array<uint8_t, 8>> read_mac(std::string_view text)
{
    std::string digits{text};
    digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
    std::array<uint8_t, 8> bytes{};
    if (digits.size() != 2 * bytes.size())
        return std::nullopt;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char* first = digits.data() + 2 * i;
        if (std::from_chars(first, first + 2, bytes[i], 16).ptr != first + 2)
            return std::nullopt;
    }
    return bytes;
}

// One word: a value, and perhaps a slash and the number of its bits that count.
template <typename Reader>
static bool add_word(prefix_list& list, std::string_view word, Reader read)
{
    const size_t slash = word.find('/');
    const auto value = read(word.substr(0, slash));
    if (!value)
        return false;
    const auto all = static_cast<unsigned int>(value->size()) * bits_per_byte;
    unsigned int bits = all;
    if (slash != std::string_view::npos) {
        const char* end = word.data() + word.size();
        const auto [last, error] = std::from_chars(word.data() + slash + 1, end, bits);
        if (error != std::errc{} || last != end || bits > all)
            return false;
    }
    list.add(*value, bits);
    return true;
}

std::vector<std::string> words_of(std::string_view text)
{
    static constexpr std::string_view between = " \t,";
    std::vector<std::string> words;
    for (size_t begin = text.find_first_not_of(between); begin != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(between, begin), text.size());
        words.emplace_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(between, end);
    }
    return words;
}

template <typename Reader>
static std::optional<prefix_list> parse(std::string_view text, Reader read)
{
    prefix_list list;
    for (const std::string& word : words_of(text))
        if (!add_word(list, word, read))
            return std::nullopt;
    if (list.empty())
        return std::nullopt;
    return list;
}

std::optional<prefix_list> parse_networks(std::string_view text)
{
    return parse(text, read_ipv4);
}

std::optional<prefix_list> parse_macs(std::string_view text)
{
    return parse(text, read_mac);
}

} // namespace rtls
