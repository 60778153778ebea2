// clogger - the logging library's flat interface: the only way in for the daemon.
//
// Every record goes to the system log and, once connected, to a debug broker as one ZeroMQ message.
// Ownership  The caller owns what a create function returns and releases it with the matching destroy
//            function. Component loggers must be destroyed before their logger.
// Threads    Every function may be called from any thread, create and destroy of one handle excepted.
// Failures   A null component logger writes nothing; destroying null does nothing. Nothing throws; a
//            record that there is no memory for ends the process. Every record leaves errno as it was.
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

// A logger for the application `name` (also its syslog identity), or null when memory is short.
tav_logger create_logger(const char* name);
void destroy_logger(tav_logger logger);

// Also publishes all later records to the ZeroMQ endpoint `address`. A bad address is logged as an
// error and changes nothing. Each call adds one more peer; records are dealt out in turn.
void logger_connect(tav_logger logger, const char* address);

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
