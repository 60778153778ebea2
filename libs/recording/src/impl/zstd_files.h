// zstd_files - a source and a sink around others that are compressed.
//
// Ownership  Each owns the one that it is around. A sink that is not closed leaves what has been flushed.
// Threads    One at a time.
// Blocking   As the one that it is around.
// Failures   file_error, of what cannot be decompressed with its place in the file; without the library, each call is
//            one. Of memory: std::bad_alloc.
#pragma once

#include "recording/pcapng.h"

#include <memory>
#include <string>

namespace rtls::recording {

// To be asked before a file is touched: there is a compressor.
void require_compression();

// `path`: as failures name it. What ends within a frame ends there, without a failure.
std::unique_ptr<byte_source> decompressed(std::unique_ptr<byte_source> from, const std::string& path);
std::unique_ptr<byte_sink> compressed(std::unique_ptr<byte_sink> to);

} // namespace rtls::recording
