// files - recordings on disk, in pipes, and compressed by zstd.
//
// Ownership  The caller's, by unique_ptr. A sink that is not closed leaves what has been flushed.
// Threads    One at a time.
// Blocking   As files and pipes do.
// Failures   file_error. Of memory: std::bad_alloc.
#pragma once

#include "recording/pcapng.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace rtls::recording {

// In words: "cannot write a.pcapng: No space left on device".
class file_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "-" is the standard input. What begins as zstd does is decompressed; where it was cut, it ends.
std::unique_ptr<byte_source> open_recording(const std::string& path);

struct sink_options {
    bool is_compressed = false;
    bool may_replace = false; // a file that is there, which is refused otherwise
};
// "-" is the standard output. A file that is there is a file_error without may_replace, and left as it is; with it, it
// is emptied when nothing can refuse the new one any more. Compression where there is no libzstd is a file_error, too.
std::unique_ptr<byte_sink> create_recording(const std::string& path, const sink_options& options);

} // namespace rtls::recording
