// firmware_commands - the operators' words on the firmware store, as answers to given arguments.
//
// Threads    Terminal thread. The store and the registry lock themselves.
// Blocking   Nothing waits: "get" is carried out elsewhere. While no actor runs (tests) it waits for its
//            transfer.
// Failures   Are answers. Memory that runs out throws std::bad_alloc.
#pragma once

#include "services.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace rtls {

struct terminal_request;

inline constexpr char firmware_list_header[] =
    "index     git id      crc32     size   page size   pages   brd version   brd revision   max pages\n";

// Pages of the image, the last one possibly not full; 0 when the page size is not known.
size_t firmware_pages_number(const OTA_FIRMWARE_INFO_t& info);

// One line of the list, and the paragraph on one image.
std::string firmware_list_line(uint16_t index, const OTA_FIRMWARE_INFO_t& info);
std::string firmware_info_text(uint16_t index, const OTA_FIRMWARE_INFO_t& info);

// Do what the words ask for, and say how it went. The words are numbers as operators write them.
std::string firmware_info(const services& gateway, const char* index_word);
std::string firmware_del(const services& gateway, const char* index_word);
std::string firmware_apply(const services& gateway, TERMINAL_SERVER_t& server, const char* mac_word);
// `source_word`: "GW", a short MAC, or null for the passive mode.
std::string firmware_set(const services& gateway, TERMINAL_SERVER_t& server, const char* index_word,
                         const char* mac_word, const char* source_word);

// "fw", with a sub-command.
void command_firmware(const terminal_request& request);

} // namespace rtls
