// Networks and MACs as a configuration lists them: what is read and who is let in, against readers that are
// written the plain way. A list with one misprint must be no list.
#include "base/prefix_list.h"
#include "fuzzing.h"

#include <cctype>

namespace rtls {

using fuzzing::require;

namespace {

struct prefix {
    uint64_t value;
    unsigned bits;
};

std::optional<unsigned> plain_decimal(const std::string& text, unsigned most)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size() - 1));
    if (digits.size() > 3 || std::stoul(digits) > most)
        return std::nullopt;
    return static_cast<unsigned>(std::stoul(digits));
}

std::optional<uint64_t> plain_ipv4(std::string text)
{
    uint64_t value = 0;
    for (int i = 0; i < 4; ++i) {
        const size_t end = i < 3 ? text.find('.') : text.size();
        if (end == std::string::npos)
            return std::nullopt;
        const std::string digits = text.substr(0, end);
        const auto byte = plain_decimal(digits, 255);
        if (!byte || (digits.size() > 1 && digits[0] == '0'))
            return std::nullopt;
        value = value << 8 | *byte;
        text.erase(0, end + 1);
    }
    return value;
}

std::optional<uint64_t> plain_mac(std::string text)
{
    std::erase(text, ':');
    if (text.size() != 16 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return std::nullopt;
    return std::stoull(text, nullptr, 16);
}

using value_reader = std::optional<uint64_t> (*)(std::string);

std::optional<prefix> plain_prefix(const std::string& word, value_reader read, unsigned width)
{
    const size_t slash = word.find('/');
    const auto value = read(word.substr(0, slash));
    const auto bits =
        slash == std::string::npos ? std::optional{width} : plain_decimal(word.substr(slash + 1), width);
    if (!value || !bits)
        return std::nullopt;
    return prefix{*value, *bits};
}

std::optional<std::vector<prefix>> plain_list(const std::string& text, value_reader read, unsigned width)
{
    std::vector<prefix> list;
    std::string word;
    for (const char c : text + ' ') {
        if (c != ' ' && c != '\t' && c != ',') {
            word += c;
        } else if (!word.empty()) {
            const auto entry = plain_prefix(word, read, width);
            if (!entry)
                return std::nullopt;
            list.push_back(*entry);
            word.clear();
        }
    }
    if (list.empty())
        return std::nullopt;
    return list;
}

bool begins_with(uint64_t value, const prefix& begin, unsigned width)
{
    const unsigned free = width - begin.bits;
    return free == 64 || value >> free == begin.value >> free;
}

void check(const std::optional<prefix_list>& list, const std::optional<std::vector<prefix>>& expected,
           unsigned width, uint64_t probe)
{
    require(list.has_value() == expected.has_value());
    if (!list)
        return;
    std::vector<uint64_t> probes{probe & (width == 32 ? UINT32_MAX : UINT64_MAX)};
    for (const prefix& entry : *expected) {
        probes.push_back(entry.value);
        probes.push_back(entry.value ^ uint64_t{1} << probe % width);
    }
    for (const uint64_t value : probes) {
        std::vector<uint8_t> bytes(width / 8);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(value >> (width - 8 - 8 * i));
        require(list->contains(bytes_view{bytes}) == std::ranges::any_of(*expected, [&](const prefix& p) {
                    return begins_with(value, p, width);
                }));
        if (width == 32)
            require(list->contains(in_addr{htonl(static_cast<uint32_t>(value))}) ==
                    list->contains(bytes_view{bytes}));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const uint64_t probe = uint64_t{input.be32()} << 32 | input.be32();
    const std::string text = fuzzing::terminated(input.text(size)).data(); // as a configuration has it
    check(parse_networks(text), plain_list(text, plain_ipv4, 32), 32, probe);
    check(parse_macs(text), plain_list(text, plain_mac, 64), 64, probe);
    return 0;
}

} // namespace rtls
