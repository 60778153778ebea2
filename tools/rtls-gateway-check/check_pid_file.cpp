// The pid file: the daemon follows links, and writes over the beginning of whatever stands there.
#include "rtls-gateway-check/check.h"

#include <fmt/format.h>

namespace rtls::check {

static constexpr std::string_view pid_file_key = "pidfile";
static constexpr std::string_view good_place = "/run/rtls-gateway/rtls-gateway.pid";

static std::string folder_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

static void check_folder(inspection& at, const std::string& path)
{
    const std::string folder = folder_of(path);
    const file_facts facts = at.options.machine->look_at(folder);
    if (facts.is_for_all_to_write)
        at.add(severity::warning, "pidfile", pid_file_key,
               fmt::format(
                   "everybody may write in {}: the daemon would follow a link there, and write over a file",
                   folder),
               fmt::format("write {}", good_place));
    // What is below /run is made by whoever starts the daemon.
    if (!facts.is_folder)
        at.add(folder.starts_with("/run/") ? severity::warning : severity::ends, "pidfile", pid_file_key,
               fmt::format("there is no folder {}: without its pid file the daemon ends", folder),
               "make the folder, or have the unit do so: RuntimeDirectory=rtls-gateway");
}

void check_pid_file(inspection& at)
{
    const effective_key& one = at.effective.at(pid_file_key);
    if (!one.item)
        return;
    const std::string& path = one.reading.value;
    if (path.empty()) {
        at.add(severity::ends, "pidfile", pid_file_key, "it is empty: without its pid file the daemon ends",
               fmt::format("write {}", good_place));
        return;
    }
    if (!path.starts_with('/'))
        at.add(severity::warning, "pidfile", pid_file_key,
               fmt::format("where \"{}\" is depends on where the daemon is started", path),
               "write a path that begins with a slash");
    if (!at.options.machine)
        return;
    if (at.options.machine->look_at(path).is_folder)
        at.add(severity::ends, "pidfile", pid_file_key,
               fmt::format("\"{}\" is a folder: without its pid file the daemon ends", path),
               fmt::format("write {}", good_place));
    else
        check_folder(at, path);
}

} // namespace rtls::check
