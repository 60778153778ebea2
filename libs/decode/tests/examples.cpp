#include "examples.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace rtls::decode {

std::string documentation()
{
    std::ifstream file{RTLS_SOURCE_DIR "/docs/decode.md"};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// "up 0000170102": the direction, and the bytes as hex or, of a line, as they are.
static example read_example(const std::string& line, std::string json)
{
    const size_t blank = line.find(' ');
    example read{.way = direction::up, .bytes = {}, .json = std::move(json)};
    if (blank == std::string::npos || !read_direction(line.substr(0, blank), read.way))
        throw std::runtime_error("no example: " + line);
    const std::string rest = line.substr(blank + 1);
    if (read.way == direction::management)
        read.bytes.assign(rest.begin(), rest.end());
    else
        read.bytes = bytes_of_command(rest);
    return read;
}

std::vector<example> examples()
{
    static constexpr std::string_view indent = "    ";
    std::vector<example> all;
    std::istringstream page{documentation()};
    std::string before;
    for (std::string line; std::getline(page, line); before = line)
        if (line.starts_with("    {\"direction\""))
            all.push_back(read_example(before.substr(indent.size()), line.substr(indent.size())));
    return all;
}

} // namespace rtls::decode
