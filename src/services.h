// services - what the gateway hands to its actors: each service by its own type.
//
// Ownership  The gateway object owns the record and what it points to. The handle that the functions by
//            handle pass around (p_rtls_gateway) is this record's address.
// Threads    Written on the main thread while no actor runs; read by the actors.
// Failures   None: a service that is not there is a null pointer.
#pragma once

#include "firmware/download_pool.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "net/http_refusals.h"
#include "registry/nodes_container.h"

namespace rtls {

struct WIN_SERVER_t;
struct TERMINAL_SERVER_t;

// What a function says that finds one of the first two missing; it ends there. The first has two texts: which
// function says which, log filters know.
inline constexpr char str_no_nodes_container[] = "%s: null nodes container not found!";
inline constexpr char str_null_nodes_container[] = "%s: null pointer to nodes container!";
inline constexpr char str_no_ota[] = "%s: rtls_gateway_get_ota returns NULL!";

struct services {
    NODES_CONTAINER_t* nodes = nullptr;
    OTA_t* ota = nullptr;
    current_firmware firmware;
    download_pool* downloads = nullptr;
    http_refusals http; // none without its port
    // The actors know each other by name only: what one may ask of the other stands in its own header.
    WIN_SERVER_t* win_server = nullptr;
    TERMINAL_SERVER_t* terminal_server = nullptr;
};

} // namespace rtls
