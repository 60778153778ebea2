// terminal_client - the record of one operator connected to the terminal port.
#pragma once

#include <czmq.h>
#include <netinet/in.h>
#include <regex.h>

#include <cstdint>

typedef struct TERMINAL_CLIENT {
    zframe_t* id;            // owned copy of the stream socket's routing identity
    char* grep_string;       // owned (malloc), or null
    regex_t* preg;           // owned (malloc), or null: no filter
    uint8_t subscribed;      // 1: receives the debug stream
    sockaddr_in client_addr; // zero when unknown
} TERMINAL_CLIENT_t;

// Frees the record and all it owns; leaves null. (CZMQ's item destructor.)
void terminal_client_item_destructor(void** item);
