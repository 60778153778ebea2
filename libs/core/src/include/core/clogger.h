// clogger - the logging library's flat interface: the only way in for the daemon.
//
// Every record goes to the system log and, once connected, to a debug broker as one ZeroMQ message.
// Neither can hold up who logs. A thread of the library's own ("rtls-log", which takes no signals) hands the
// lines to syslog(3), in the order of the calls. While the system log takes none, 8,192 lines or 8 MiB wait;
// what comes then is lost, and a warning says how much as soon as there is room again:
//     Log lines lost while the system log took none: 17
// 1,000 lines of each second pass whole; beyond them only the first of each format, and a warning follows:
//     Log lines held back beyond 1000 in a second: 17
// So it does where there was no memory for a line:
//     Log lines lost as memory was short: 17
// Ownership  The caller owns what a create function returns and releases it with the matching destroy
//            function. Component loggers must be destroyed before their logger.
// Threads    Every function may be called from any thread, create and destroy of one handle excepted. Not by
//            the child of a fork: its records are dropped. Whoever calls libc's own functions for the system
//            log waits while it takes no lines; the mask that setlogmask leaves is heeded.
// Failures   A null component logger writes nothing; destroying null does nothing. Nothing throws; a
//            record that there is no memory for is lost, counted and said. Every record leaves errno as it
//            was.
#pragma once

#include "core/ctimestamp.h"

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tav_logger_handle* tav_logger;
typedef struct tav_component_logger_handle* tav_component_logger;

#define TAV_PRINTF_LIKE(format_index, first_argument)                                                        \
    __attribute__((format(printf, format_index, first_argument)))

// A logger for the application `name` (also its syslog identity), or null when memory, descriptors or
// threads are short.
tav_logger create_logger(const char* name);

// Waits until all records are where they belong: at most 2.5 seconds for the system log, five for a connected
// broker, both at once. What could not be written then is given up.
void destroy_logger(tav_logger logger);

// Waits until the system log has all records so far, and it is said there how many are missing. False when
// that takes longer than `timeout_ms`, and for null. exit() waits by itself, at most 2.5 seconds; this is for
// who is about to end the process in a harder way.
bool logger_flush(tav_logger logger, unsigned timeout_ms);

// What became of the records so far. Debug records that the system log's mask keeps out are no lines.
typedef struct tav_log_counters {
    uint64_t queued;      // lines taken in for the system log
    uint64_t written;     // of these, handed to syslog(3); the others wait
    uint64_t lost;        // lines lost, as the system log took none
    uint64_t held_back;   // lines beyond 1,000 in a second
    uint64_t unstored;    // lines lost, as there was no memory for them
    uint64_t unpublished; // records that a broker should have got: its queue was full, it was away, or memory
                          // was short
} tav_log_counters;

// All zero for null. Reads a few counters, each by itself, and never waits.
tav_log_counters logger_get_counters(tav_logger logger);

// Whether the thread that hands lines to the system log is there; false for null.
bool logger_thread_lives(tav_logger logger);

// Also publishes all later records to the ZeroMQ endpoint `address`. A bad address is logged as an
// error and changes nothing. Each call adds one more peer; records are dealt out in turn.
void logger_connect(tav_logger logger, const char* address);

// Brokers connected from now on are spoken to by CurveZMQ (RFC 26/CURVEZMQ) only. The keys are 40 characters of
// Z85 each: the broker's public one, and our own pair. False when the library has no such keys, or no CURVE.
bool logger_secure(tav_logger logger, const char* server_key, const char* own_public, const char* own_secret);

// Looks after the connection with the brokers: one that the library gives up, as its server answered nonsense
// or is of the wrong kind, is connected again. To be called several times a second; never waits.
void logger_tend_broker(tav_logger logger);

typedef struct tav_link_state {
    bool is_up;              // connected, and the handshake done
    int64_t since_ms;        // of that, or of the last loss; milliseconds of the epoch, 0: never was up
    uint64_t connections;    // handshakes done
    uint64_t failures;       // handshakes that failed, and connections lost
    const char* last_reason; // of a failure, or of nobody answering; "" without one. Lives for ever.
    // The failures by their kind: the handshake was broken off; another protocol; refused; another kind of
    // socket; a connection lost.
    uint64_t failures_of[5];
} tav_link_state;

// What is known of the connection with the broker, as logger_tend_broker has last seen it; all zero for null.
tav_link_state logger_get_broker_state(tav_logger logger);

// A logger of one component, whose records the broker sees prefixed "&application:name ".
tav_component_logger create_component_logger(tav_logger logger, const char* name);
void destroy_component_logger(tav_component_logger logger);

// One record each; `format` and what follows are printf's. The text may be of any length.
void logger_debug(tav_component_logger logger, const char* format, ...) TAV_PRINTF_LIKE(2, 3);
void logger_debug_ts(tav_component_logger logger, tav_timestamp_t timestamp, const char* format, ...)
    TAV_PRINTF_LIKE(3, 4);
void logger_info(tav_component_logger logger, const char* format, ...) TAV_PRINTF_LIKE(2, 3);
void logger_warning(tav_component_logger logger, const char* format, ...) TAV_PRINTF_LIKE(2, 3);
void logger_error(tav_component_logger logger, const char* format, ...) TAV_PRINTF_LIKE(2, 3);

// Whether a debug record written now could reach anybody: a broker's address has been given
// (whether or not somebody is there) or the system log's mask admits debug records, whoever has set it.
// Callers use it to skip the making of expensive texts; false for null. Costs a few nanoseconds.
bool logger_debug_is_wanted(tav_component_logger logger);

#ifdef __cplusplus
}
#endif
