// rtls-gateway - the gateway object: owns every service and hands them out.
//
// Ownership  The gateway owns what its getters return; callers borrow it.
// Threads    Created, run and destroyed on the main thread; the getters serve the actors' threads. No lock.
// Blocking   rtls_gateway_run waits for the actors to be ready or to fail, rtls_gateway_destroy for their
//            end.
// Failures   A null handle is logged and answered with nullptr, 0 or false.
#pragma once

#include "version.h"

#include <czmq.h>

#include <cstdint>

namespace rtls {

struct services;

// A gateway built from the configuration file, nothing started; or nullptr, with the reason logged.
void* rtls_gateway_new(const char* config_file_name);

// Starts both actors and writes the pid file once they are ready. False when one cannot be started,
// when the process is interrupted before, or when the pid file cannot be written.
bool rtls_gateway_run(void* p_rtls_gateway);

// Stops the actors, then frees what their threads used; nulls the handle. The pid file stays.
void rtls_gateway_destroy(void** pp_rtls_gateway);

// What the gateway hands to its actors, by its type (services.h).
services* rtls_gateway_get_services(void* p_rtls_gateway);
zconfig_t* rtls_gateway_get_config(void* p_rtls_gateway);
void* rtls_gateway_get_win_server(void* p_rtls_gateway);
void* rtls_gateway_get_terminal_server(void* p_rtls_gateway);
void* rtls_gateway_get_nodes_container(void* p_rtls_gateway);
void* rtls_gateway_get_ota(void* p_rtls_gateway);

// The current firmware image (FIRMWARE_t), or nullptr.
void* rtls_gateway_get_firmware(void* p_rtls_gateway);
// Takes `p_firmware` (or null) over and destroys the one before.
void rtls_gateway_set_firmware(void* p_rtls_gateway, void* p_firmware);

// The tables of connected peers; each belongs to its actor's thread.
zhashx_t* rtls_gateway_get_win_clients(void* p_rtls_gateway);
zhashx_t* rtls_gateway_get_terminal_clients(void* p_rtls_gateway);

// Tells every bridge to update its firmware. WIN server thread only.
void rtls_gateway_nodes_update(void* p_rtls_gateway);

uint16_t rtls_gateway_get_debug_level(void* p_rtls_gateway);
void rtls_gateway_set_debug_level(void* p_rtls_gateway, uint16_t debug_level);
// Adds one, 65535 being followed by 0, and returns the new level.
uint16_t rtls_gateway_increment_debug_level(void* p_rtls_gateway);

} // namespace rtls
