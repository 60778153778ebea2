// Any pattern that an operator may type, and a line: whatever passes the checks costs little, and a pattern without
// signs is looked for as it stands.
#include "fuzzing.h"
#include "terminal/filter.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace rtls {

using fuzzing::require;

namespace {

constexpr size_t longest_line = 2047; // of the debug stream
// Far beyond what they may cost: sanitizers, coverage and a busy machine slow everything down.
constexpr double compile_limit_s = 5;
constexpr double match_limit_s = 1;

// Of this thread: a busy machine does not count.
double cpu_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

filter_ptr compiled(const char* pattern)
{
    const double begin = cpu_seconds();
    errno = 0;
    filter_ptr filter = compile_filter(pattern);
    const int error = errno;
    require(cpu_seconds() - begin < compile_limit_s);
    require(filter || error == EINVAL || error == E2BIG);
    return filter;
}

bool matches(const line_filter& filter, const char* line)
{
    const double begin = cpu_seconds();
    const bool is_passed = passes(filter, line);
    require(cpu_seconds() - begin < match_limit_s);
    require(passes(filter, line) == is_passed); // it remembers nothing
    return is_passed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const size_t times = input.u8();
    const std::vector<char> pattern = fuzzing::terminated(input.line());
    std::string line = input.text(longest_line);
    for (const std::string once = line; times > 200 && !once.empty() && line.size() < longest_line;)
        line += once;
    line.resize(std::min(line.size(), longest_line));
    const std::vector<char> exact = fuzzing::terminated(line);

    const filter_ptr filter = compiled(pattern.data());
    if (!std::strpbrk(pattern.data(), "\\[]^$()*+?{}.|")) {
        require(filter != nullptr);
        require(matches(*filter, exact.data()) == (std::strstr(exact.data(), pattern.data()) != nullptr));
    } else if (filter) {
        (void)matches(*filter, exact.data());
    }
    return 0;
}

} // namespace rtls
