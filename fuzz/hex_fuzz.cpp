// Hexadecimal text as the servers send it, against a decoder that looks at one pair after the other; and bytes
// as text and back.
#include "base/hex.h"
#include "fuzzing.h"

#include <cctype>
#include <cstring>

namespace rtls {

using fuzzing::require;

namespace {

// What string_to_uint8_arr makes of a text: it looks at no more than the digits of max_size + 1 bytes.
std::vector<uint8_t> plain_decode(std::string digits, size_t max_size)
{
    digits.resize(std::min(digits.size(), 2 * (max_size + 1)));
    for (const char c : digits)
        if (std::isxdigit(static_cast<unsigned char>(c)) == 0)
            return {};
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

void decode(const std::string& given, size_t max_size)
{
    const std::vector<char> text = fuzzing::terminated(given);
    std::vector<uint8_t> out(std::min((text.size() - 1) / 2, max_size + 1));
    out.shrink_to_fit(); // room for what the text's own end allows, and for no byte more
    uint8_t nowhere = 0;
    const ssize_t size =
        string_to_uint8_arr(text.data(), out.empty() ? &nowhere : out.data(), static_cast<ssize_t>(max_size));
    const auto expected = plain_decode(text.data(), max_size);
    require(size == static_cast<ssize_t>(expected.size()));
    require(std::equal(expected.begin(), expected.end(), out.begin()));
}

void encode_and_decode(const std::vector<uint8_t>& bytes)
{
    const std::string text = to_hex(bytes);
    require(text.size() == 2 * bytes.size());
    require(text.find_first_not_of("0123456789ABCDEF") == std::string::npos);
    require(hex_text{bytes}.c_str() == text);
    std::vector<char> written(text.size());
    require(write_hex(bytes, written.data()) == written.data() + written.size());
    require(std::equal(written.begin(), written.end(), text.begin()));
    require(plain_decode(text, bytes.size()) == bytes);
    decode(text, bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const size_t max_size = input.u8();
    const std::string text = input.text(size);
    decode(text, max_size);
    encode_and_decode({data, data + size});
    return 0;
}

} // namespace rtls
