// What libcurl's callbacks hand over of a download, headers and trailers of any number of responses among pieces
// of body, against a model of the rules: the last length before the body counts, none may follow, a body fits
// it, and all headers together have a limit.
#include "firmware/image_download.h"
#include "fuzzing.h"

#include <cctype>

namespace rtls {

using fuzzing::require;

namespace {

constexpr size_t all_headers = size_t{256} * 1024;

namespace what {
constexpr unsigned is_body = 0x80;
constexpr unsigned has_name = 0x40; // of the header that counts, before the bytes
constexpr unsigned is_long = 0x20;  // the bytes come many times over
constexpr unsigned size = 0x1F;
} // namespace what

// The digits of a length in a header line; none when it names no length.
std::string announced_by(const std::string& line)
{
    static constexpr char name[] = "content-length: ";
    std::string lower = line.c_str(); // up to a zero
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (size_t at = lower.find(name); at != std::string::npos; at = lower.find(name, at + 1)) {
        const size_t digits = at + sizeof name - 1;
        const size_t end = std::min(lower.find_first_not_of("0123456789", digits), lower.size());
        if (end > digits)
            return lower.substr(digits, end - digits);
    }
    return {};
}

class reference_model {
public:
    explicit reference_model(bool gives_up) : m_gives_up(gives_up) {}

    bool take_header(const std::string& line)
    {
        m_header_bytes += line.size();
        if (m_header_bytes > all_headers)
            return false;
        const std::string digits = announced_by(line);
        if (digits.empty())
            return true;
        if (body.empty())
            announce(digits);
        else
            failed = true;
        return !failed || !m_gives_up;
    }

    bool take_body(const std::string& bytes)
    {
        if (bytes.size() > m_capacity - body.size())
            return false;
        body += bytes;
        return true;
    }

    std::string body;
    bool failed = false;

private:
    void announce(const std::string& digits)
    {
        const std::string number = digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1));
        failed = number.size() > 8 || std::stoul(number) > image_size_ceiling;
        m_capacity = failed ? 0 : std::stoul(number);
    }

    const bool m_gives_up;
    size_t m_capacity = 0;
    size_t m_header_bytes = 0;
};

std::string repeated(const std::string& text, size_t times)
{
    std::string all;
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

std::string bytes_of(unsigned options, fuzzing::input& input)
{
    std::string bytes = input.text(options & what::size);
    if ((options & what::is_long) != 0) {
        const size_t times = input.u8();
        bytes = repeated(bytes, times == UINT8_MAX ? 8 * times : times);
    }
    if ((options & what::is_body) == 0 && (options & what::has_name) != 0)
        bytes.insert(0, "Content-Length: ");
    return bytes;
}

void download(fuzzing::input input, const image_download_options& options)
{
    image_receiver receiver{options};
    reference_model model{options.bad_length_aborts};
    while (!input.empty()) {
        const unsigned head = input.u8();
        const std::string bytes = bytes_of(head, input);
        const std::vector<char> exact{bytes.begin(), bytes.end()};
        const auto* data = reinterpret_cast<const uint8_t*>(exact.data());
        if ((head & what::is_body) != 0)
            require(receiver.take_body({data, exact.size()}) == model.take_body(bytes));
        else
            require(receiver.take_header({exact.data(), exact.size()}) == model.take_header(bytes));
        require(receiver.failed() == model.failed);
    }
    const auto image = receiver.release();
    require(image && image->memory && image->size == model.body.size());
    require(std::equal(model.body.begin(), model.body.end(), image->memory.get(),
                       [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; }));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    if ((input.u8() & 1) != 0) // as the two keepers of images have it
        download(input, {.caller = "fuzz"});
    else
        download(input, {.caller = "fuzz", .bad_length_aborts = true, .reports_missing_length = true});
    return 0;
}

} // namespace rtls
