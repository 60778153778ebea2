// process_figures - what the kernel knows of this process.
//
// Threads    Any.
// Blocking   Asks the kernel by /proc, which takes no disk.
// Failures   What cannot be read is zero, or nothing. Nothing throws, nothing is logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace rtls {

struct process_figures {
    std::optional<uint64_t> open_descriptors; // none: they cannot be counted, maybe as there are too many
    uint64_t most_descriptors = 0;
    uint64_t resident_bytes = 0;
    uint64_t virtual_bytes = 0;
    double processor_seconds = 0; // of all threads, in user and in kernel
    double start_seconds = 0;     // since the epoch
};

process_figures read_process_figures() noexcept;

} // namespace rtls
