// In the place of zstd_files.cpp where there is no libzstd.
#include "impl/zstd_files.h"

#include "recording/files.h"

namespace rtls::recording {

static constexpr char why[] = "compressed recordings are not built in (libzstd)";

void require_compression()
{
    throw file_error(why);
}

std::unique_ptr<byte_source> decompressed(std::unique_ptr<byte_source>, const std::string&)
{
    throw file_error(why);
}

std::unique_ptr<byte_sink> compressed(std::unique_ptr<byte_sink>)
{
    throw file_error(why);
}

} // namespace rtls::recording
