// file_series - recordings one after the other: the next begins when one is large or old enough.
//
// Ownership  Owns the file that is open.
// Threads    One.
// Failures   rtls::recording::file_error; what was flushed before stays.
#pragma once

#include "recording/files.h"

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace record {

struct series_options {
    std::string path;
    uint64_t max_size = 0;  // bytes; 0: any
    double max_seconds = 0; // 0: any
    size_t keep = 0;        // the latest files that stay; 0: all
    bool is_compressed = false;
    bool may_replace = false;

    bool is_rotated() const { return max_size > 0 || max_seconds > 0; }
};

// "a.pcapng.zst" and 7: "a-00007.pcapng.zst".
std::string numbered_path(const std::string& path, size_t number);

class file_series {
public:
    // Opens the first.
    explicit file_series(const series_options& options);
    // False when the message is too large for a recording.
    bool write(const rtls::recording::tap_message& message);
    void flush();
    void close();
    size_t count() const { return m_count; }
    // Those that are there still.
    const std::deque<std::string>& paths() const { return m_paths; }

private:
    using clock = std::chrono::steady_clock;

    void open_next();
    bool is_full() const;

    series_options m_options;
    std::deque<std::string> m_paths;
    size_t m_count = 0;
    std::unique_ptr<rtls::recording::byte_sink> m_sink;
    std::optional<rtls::recording::pcapng_writer> m_writer;
    clock::time_point m_opened;
};

} // namespace record
