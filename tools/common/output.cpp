#include "common/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tools {

static bool has_reader(bool is_written)
{
    if (is_written)
        return true;
    if (errno == EPIPE)
        return false;
    throw output_error(std::string{"cannot write the output: "} + std::strerror(errno));
}

bool print(const std::string& text)
{
    return has_reader(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

bool flush_output()
{
    return has_reader(std::fflush(stdout) == 0 && std::ferror(stdout) == 0);
}

} // namespace tools
