// firmware - a node firmware image fetched by URL, and its pages as update messages.
//
// Ownership  The caller owns the record; release it with firmware_destroy.
// Threads    Any; a download blocks its caller for at most 20 s and ends early when the daemon stops.
// Failures   Logged; a failed download leaves nothing behind.
#pragma once

#include "messaging.h"

#include <cstddef>
#include <cstdint>

struct FIRMWARE_t {
    unsigned char* memory; // owned; the image
    size_t size;
    unsigned int crc32; // of the whole image, without the usual inversions: the nodes' own rule
    uint32_t version;   // from the file name, 0 if it names none
    const char* name;   // last component of the URL text given; borrowed from the caller
};

// Downloads an image, or nullptr.
FIRMWARE_t* firmware_get_from_url(const char* url);

// Fills page msg->num of the image into msg. False only for a null msg.
bool firmware_msg_pack(FIRMWARE_t* firmware, gwMsgUpdateRequest_t* msg);

void firmware_destroy(void** pp_firmware);
