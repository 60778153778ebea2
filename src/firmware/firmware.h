// firmware - the image announced by MSG_FW_IMAGE_AVAIL_IND: fetched by URL, and cut into update messages.
//
// The bridges are told of it and fetch it themselves; the images served to nodes page by page are in ota.
// Ownership  A record owns its image, the caller the record; release it with firmware_destroy.
// Threads    Any. A download blocks its caller for at most 20 s, after at most 20 s of waiting for another
//            one to end, and ends early when the daemon stops.
// Failures   Logged; a failed download leaves nothing behind.
#pragma once

#include "base/czmq_ptr.h"
#include "wire/messaging.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace rtls {

struct FIRMWARE_t {
    lent<malloced_bytes> memory; // the image
    size_t size = 0;
    unsigned int crc32 = 0;   // of the whole image, without the usual inversions: the nodes' own rule
    uint32_t version = 0;     // from the file name, 0 if it names none
    lent<malloced_text> name; // last component of the URL
};

// Downloads an image, or nullptr. Whatever a server answers with is the image: the status is not asked.
FIRMWARE_t* firmware_get_from_url(const char* url);

// The same; `reason`, if given, gets why the transfer failed.
FIRMWARE_t* firmware_fetch(const char* url, std::string* reason);

// Fills page msg->num of the image into msg, padded with 0xFF. False only for a null msg; a null
// firmware is answered with ENO_FIRMWARE. A full page leaves msg->flag as it is, so an image that fills
// its pages exactly is told its end (EOF_FIRMWARE) only with the page after the last.
bool firmware_msg_pack(FIRMWARE_t* firmware, gwMsgUpdateRequest_t* msg);

// Null is welcome in *pp_firmware, and left there.
void firmware_destroy(void** pp_firmware);
using firmware_ptr = std::unique_ptr<FIRMWARE_t, destroyed_by<firmware_destroy>>;

// The image that bridges are told of, or none. Owns it.
// Threads    Set on the WIN server's thread; read on any, where the value alone counts: an image that is
//            replaced is destroyed at once.
class current_firmware {
public:
    current_firmware() = default;
    ~current_firmware() { set(nullptr); }
    current_firmware(const current_firmware&) = delete;
    current_firmware& operator=(const current_firmware&) = delete;

    FIRMWARE_t* get() const { return m_firmware.load(std::memory_order_relaxed); }
    // Takes `firmware` (or null) over and destroys the one before.
    void set(FIRMWARE_t* firmware);

private:
    std::atomic<FIRMWARE_t*> m_firmware{nullptr};
};

} // namespace rtls
