#include "rtls-mqtt/login.h"

#include "tap/failure.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace mqtt {

using tap::exit_status;
using tap::failure;

static failure unreadable(const std::string& file)
{
    return {exit_status::usage, fmt::format("cannot read {}: {}", file, std::strerror(errno))};
}

void require_private(const std::string& file)
{
    struct stat facts {};
    if (::stat(file.c_str(), &facts) != 0)
        throw unreadable(file);
    if ((facts.st_mode & (S_IROTH | S_IWOTH)) != 0)
        throw failure(exit_status::usage,
                      fmt::format("everybody on this host can read the secret in {0}: chmod o-rw {0}", file));
}

// Without what other systems put at its end.
static std::string take_line(std::istream& in)
{
    std::string line;
    std::getline(in, line);
    if (line.ends_with('\r'))
        line.pop_back();
    return line;
}

login read_login(const std::string& file)
{
    require_private(file);
    std::ifstream in{file};
    if (!in)
        throw unreadable(file);
    login found;
    found.user = take_line(in);
    found.password = take_line(in);
    if (found.user.empty())
        throw failure(exit_status::usage,
                      fmt::format("{} has no user in its first line, and the password in its second", file));
    return found;
}

} // namespace mqtt
