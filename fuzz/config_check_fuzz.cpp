// Any configuration file: rtls-gateway-check reads it line by line as the library does, says that the daemon starts
// where it does, and knows the values that it then has. Whatever it says can be printed; what holds is a
// configuration again.
#include "checking.h"
#include "daemon_comparison.h"
#include "fuzzing.h"
#include "memory_file.h"
#include "rtls-gateway-check/output.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace rtls {

using fuzzing::require;

namespace {

void require_none(const std::string& difference)
{
    if (!difference.empty())
        fmt::print(stderr, "{}\n", difference);
    require(difference.empty());
}

void check_output(const check::zpl_file& file, const check::findings& found)
{
    const auto escape = nlohmann::json::error_handler_t::replace;
    require(!check::findings_text("file", found).empty());
    require(!check::findings_json("file", found).dump(2, ' ', false, escape).empty());
    const check::effective_configuration effective{file};
    require(!check::effective_json(effective).dump(2, ' ', false, escape).empty());
    require(check::parse_zpl(check::effective_text(effective)).faults.empty());
}

} // namespace

// Certificates that have none of a configuration's syntax: the library loses its record of them.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:zfile_new\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const fuzzing::memory_file file;
    static const check::some_machine machine;
    static const bool is_quiet =
        freopen("/dev/null", "w", stdout) != nullptr; // the library complains of each fault
    require(is_quiet);
    const std::string text{reinterpret_cast<const char*>(data), size};
    require_none(check::difference_of_trees(text));
    const check::zpl_file parsed = check::parse_zpl(text);
    check_output(parsed, check::check_configuration(parsed, {.machine = &machine, .bridges = {}}));
    if (!file.write_configuration(text))
        return 0;
    require_none(check::difference_of_verdicts(text, file.path().c_str(), machine));
    return 0;
}

} // namespace rtls
