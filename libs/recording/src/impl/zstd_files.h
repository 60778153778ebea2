// zstd_files - a source and a sink around others that are compressed.
//
// Ownership  Each owns the one that it is around.
// Failures   file_error; without the library, each call is one.
#pragma once

#include "recording/pcapng.h"

#include <memory>
#include <string>

namespace rtls::recording {

std::unique_ptr<byte_source> decompressed(std::unique_ptr<byte_source> from, const std::string& path);
std::unique_ptr<byte_sink> compressed(std::unique_ptr<byte_sink> to);

} // namespace rtls::recording
