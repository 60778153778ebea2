#include "metrics/process_figures.h"

#include "base/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>

namespace rtls {

namespace {

struct closed {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

} // namespace

// Without the one that the look itself needs.
static std::optional<uint64_t> count_descriptors() noexcept
{
    const std::unique_ptr<DIR, closed> folder{opendir("/proc/self/fd")};
    if (!folder)
        return std::nullopt; // when none is left, above all
    uint64_t number = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is our own
    while (const dirent* entry = readdir(folder.get()))
        number += entry->d_name[0] != '.';
    return number > 0 ? number - 1 : 0;
}

// The start of a small file of /proc, zero-terminated.
static std::array<char, 512> read_text(const char* path) noexcept
{
    std::array<char, 512> text{};
    const unique_fd file{open(path, O_RDONLY | O_CLOEXEC)};
    if (!file)
        return text;
    const ssize_t size = read(file.get(), text.data(), text.size() - 1);
    text[size > 0 ? static_cast<size_t>(size) : 0] = '\0';
    return text;
}

static void read_memory(process_figures& figures) noexcept
{
    const auto text = read_text("/proc/self/statm");
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    char* end = nullptr;
    figures.virtual_bytes = strtoull(text.data(), &end, 10) * page;
    figures.resident_bytes = strtoull(end, nullptr, 10) * page;
}

// The real-time clock's value when the process began: the kernel counts its start from the system's.
static double start_of_process() noexcept
{
    constexpr int start_field = 22; // of proc(5)'s stat; the third is the first behind the name
    const auto text = read_text("/proc/self/stat");
    const char* at = strrchr(text.data(), ')');
    for (int field = 2; at && field < start_field; ++field)
        at = strchr(at + 1, ' ');
    if (!at)
        return 0;
    timespec now{};
    timespec up{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &up);
    const auto seconds = [](const timespec& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
    };
    const double started = strtod(at, nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return seconds(now) - seconds(up) + started;
}

static double processor_time() noexcept
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

process_figures read_process_figures() noexcept
{
    static const double start = start_of_process(); // once: it would follow each step of the clock
    process_figures figures;
    figures.open_descriptors = count_descriptors();
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0)
        figures.most_descriptors = limit.rlim_cur;
    read_memory(figures);
    figures.processor_seconds = processor_time();
    figures.start_seconds = start;
    return figures;
}

} // namespace rtls
