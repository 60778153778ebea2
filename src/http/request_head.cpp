#include "http/request_head.h"

#include "http/blanks.h"

#include <algorithm>
#include <cctype>

namespace rtls {

static constexpr std::string_view line_end = "\r\n";
static constexpr std::string_view head_end = "\r\n\r\n";
// Ranges (one request could ask for an answer a thousand times over), encodings and the like are not served.
static constexpr std::string_view headers_taken[] = {"accept", "connection"};

size_t request_head_size(std::string_view bytes)
{
    const size_t end = bytes.find(head_end);
    return end == std::string_view::npos ? 0 : end + head_end.size();
}

static bool is_text(std::string_view line)
{
    return std::ranges::none_of(line, [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; });
}

static bool is_request_line(std::string_view line)
{
    const size_t target = line.find(' ');
    const size_t version = line.rfind(' ');
    if (target == std::string_view::npos || target == 0 || version <= target + 1)
        return false;
    const std::string_view middle = line.substr(target + 1, version - target - 1);
    const std::string_view last = line.substr(version + 1);
    return middle.front() == '/' && middle.find_first_of(blanks) == std::string_view::npos &&
           (last == "HTTP/1.1" || last == "HTTP/1.0");
}

static std::string lower_case(std::string_view text)
{
    std::string lower{text};
    std::ranges::transform(lower, lower.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

static bool announces_body(std::string_view name, std::string_view value)
{
    return name == "transfer-encoding" || (name == "content-length" && value != "0");
}

// False when the line is no header.
static bool take_header(std::string_view line, request_head& head)
{
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0 ||
        line.substr(0, colon).find_first_of(blanks) != std::string_view::npos)
        return false;
    const std::string name = lower_case(line.substr(0, colon));
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (name == "authorization" && head.authorization.empty())
        head.authorization = value;
    head.has_body = head.has_body || announces_body(name, value);
    if (std::ranges::find(headers_taken, name) != std::end(headers_taken))
        head.text.append(name).append(": ").append(value).append(line_end);
    return true;
}

// Takes the first line off; both ends of the head are known to be there.
static std::string_view next_line(std::string_view& rest)
{
    const size_t end = rest.find(line_end);
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + line_end.size());
    return line;
}

std::optional<request_head> read_request_head(std::string_view bytes)
{
    if (!bytes.ends_with(head_end) || bytes.size() > request_head_limit)
        return std::nullopt;
    request_head head;
    const std::string_view request_line = next_line(bytes);
    if (!is_text(request_line) || !is_request_line(request_line))
        return std::nullopt;
    head.text.append(request_line).append(line_end);
    for (size_t number = 0; bytes != line_end; ++number) {
        const std::string_view line = next_line(bytes);
        if (number == request_headers_limit || !is_text(line) || !take_header(line, head))
            return std::nullopt;
    }
    head.text.append(line_end);
    return head;
}

} // namespace rtls
