// file_series - recordings one after the other: the next begins when one is large or old enough.
//
// Ownership  Owns the file that is open.
// Threads    One.
// Blocking   As files do.
// Failures   rtls::recording::file_error; what was flushed before stays. What nobody has begun has no file.
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
// The largest number of such a file that is there; 0: there is none.
size_t last_number(const std::string& path);

class file_series {
public:
    // Makes no file yet. A file that is in the way and may not be replaced, or a folder in which none can be made: a
    // failure at once. Numbers go on behind those of earlier runs, unless files may be replaced.
    explicit file_series(const series_options& options);
    // Opens the first, once.
    void begin();
    // False when the message is too large for a recording. Begins when that has not been done.
    bool write(const rtls::recording::tap_message& message);
    void flush();
    void close();
    size_t count() const { return m_count; }
    // Of this run, those that are there still.
    const std::deque<std::string>& paths() const { return m_paths; }

private:
    using clock = std::chrono::steady_clock;

    void open_next();
    std::string next_path() const;
    bool is_full() const;

    series_options m_options;
    std::deque<std::string> m_paths;
    size_t m_before = 0; // the number of the last file of earlier runs
    size_t m_count = 0;
    std::unique_ptr<rtls::recording::byte_sink> m_sink;
    std::optional<rtls::recording::pcapng_writer> m_writer;
    clock::time_point m_opened;
    bool m_has_messages = false; // in the file that is open: none is left without
};

} // namespace record
