// image_download - one firmware image fetched by URL into memory: what both keepers of images share.
//
// Schemes    http, https and file; redirects lead to http and https only.
// Size       A body must be announced by a "Content-Length" header and fit it; the last such header
//            before the body counts, and none may follow. Nothing above image_size_ceiling is fetched. All
//            headers and trailers of a transfer have 256 KiB, and 10 redirects are followed.
// Files      Regular ones only, and none of the kernel's own.
// Threads    Any. Four transfers overlap: a caller waits for its turn no longer than its own time-out,
//            and has its whole time-out for the transfer then, names included. Waits and transfers end within
//            about a second of a request to stop.
// Failures   Logged; a failed download leaves nothing behind. Nothing throws.
#pragma once

#include "base/counter.h"
#include "base/czmq_ptr.h"
#include "base/posix_regex.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

// The largest image that the gateway keeps, downloaded or assembled.
inline constexpr size_t image_size_ceiling = size_t{64} << 20;

inline constexpr int transfers_at_once = 4;

// Image bytes come from malloc, because images under assembly grow by realloc.
using image_memory = malloced_bytes;

// At least one byte, uninitialised; null when memory is short.
inline image_memory allocate_image(size_t size)
{
    return image_memory{static_cast<uint8_t*>(std::malloc(size > 0 ? size : 1))};
}

struct downloaded_image {
    image_memory memory; // never null, even for an empty image
    size_t size = 0;
};

struct image_download_options {
    const char* caller; // the function that reports
    // Whether a length that cannot be provided for fails the transfer at its header already, not at
    // the body only. A redirect's length may still be superseded in the second case.
    bool bad_length_aborts = false;
    bool reports_missing_length = false; // whether a body without announced length is worth a line
    std::chrono::milliseconds timeout{20'000};
    std::string* reason = nullptr; // empty; gets the reason of a transfer that failed
};

// Why there is no image, for who asks for the reason; the first one said stays. Without memory there is none.
void note_reason(std::string* reason, const char* text) noexcept;

// From now on images come only from URLs that begin with one of these, and redirects lead nowhere else; none:
// from anywhere. A refusal is counted, and the first one of an episode is logged. Of the process; before its
// first download.
void image_download_only_from(std::vector<std::string> prefixes);

// Downloads an image; nothing when that fails.
std::optional<downloaded_image> image_download(const char* url, const image_download_options& options);

// What becomes of a transfer. Whether its image is kept is for who has asked for it.
enum class transfer_outcome : uint8_t { complete, failed, timed_out, stopped, forbidden, kinds };

// Of all transfers of the process; any thread reads.
struct transfer_counters {
    std::array<shared_counter, static_cast<size_t>(transfer_outcome::kinds)> transfers;
    shared_counter bytes;        // received, of those that failed, too
    shared_counter microseconds; // from their beginning to their end, without the wait for a turn
};
const transfer_counters& image_download_counters() noexcept;
// One that could not begin, for lack of memory: it counts as failed.
void image_download_not_begun() noexcept;

// The receiving end of one transfer: turns headers and body into an image, and never holds more than
// was announced. For image_download, and for tests without a network.
class image_receiver {
public:
    explicit image_receiver(const image_download_options& options);

    bool is_ready() const; // false, with errno set, when the header expression did not compile
    // One header line, of whichever response. False: give the transfer up.
    bool take_header(std::string_view line) noexcept;
    // The next bytes of the body. False: they do not fit what was announced.
    bool take_body(std::span<const uint8_t> bytes) noexcept;
    // Whether the last length announced could not be provided for, or came after the body began.
    bool failed() const { return m_failed; }
    // What arrived, and gives it up; nothing when memory is short.
    std::optional<downloaded_image> release();

private:
    bool provide_for(std::string_view digits) noexcept;

    image_download_options m_options;
    posix_regex m_content_length;
    image_memory m_memory;
    size_t m_capacity = 0;
    size_t m_size = 0;
    size_t m_header_bytes = 0;
    bool m_announced = false;
    bool m_failed = false;
};

} // namespace rtls
