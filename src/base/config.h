// config - typed access to the configuration tree (ZPL, read by CZMQ).
//
// Ownership  The tree is the caller's until config_destroy. Texts handed out point into it.
// Threads    Main thread, while the services are created. Only config_new waits: for the disk.
// Failures   Logged once, in fixed words; the caller decides whether a missing key is fatal.
#pragma once

#include "base/czmq_ptr.h"

#include <czmq.h>

#include <cstdint>
#include <memory>

namespace rtls {

// The tree read from the file, or null. An empty file gives an empty tree.
zconfig_t* config_new(const char* config_file_name);

// The text at `path` ("section/name"); "" for an item without a value.
bool config_value_get(zconfig_t* config, const char* path, const char** res);

// The text as a number by strtol's rules, base 0; text after the number is ignored. `res` may be
// written even when the result is false.
bool config_value_long_get(zconfig_t* config, const char* path, int64_t* res);

// The low 16 bits of the number. Deliberately without a range check: callers that need one check
// the value themselves.
bool config_value_uint16_t_get(zconfig_t* config, const char* path, uint16_t* res);

// By the first character: y Y 1 t T or n N 0 f F. Anything else fails without a log line.
bool config_value_bool_get(zconfig_t* config, const char* path, bool* res);

// Releases the tree and nulls the pointer.
void config_destroy(zconfig_t** p_config);
using config_ptr = std::unique_ptr<zconfig_t, destroyed_by<config_destroy>>;

} // namespace rtls
