// logger - the daemon's own loggers: one for ordinary messages, one for each debug section.
//
// Ownership  The loggers live from logger_init to logger_cleanup; everybody else borrows them.
// Threads    logger_init and logger_cleanup run on the main thread, while no other thread logs. Logging
//            itself: any thread, at once.
// Blocking   logger_cleanup waits up to 5 s for records that the debug broker has not taken. A logger_init
//            that fails may wait 2 s for a system log that nobody reads.
// Failures   logger_init: logged. A record that there is no memory for is lost, and the system log says so.
#pragma once

#include "core/clogger.h"

namespace rtls {

extern tav_logger g_logger_ctx;                // null before logger_init
extern tav_component_logger g_logger;          // component "main": errors and events
extern tav_component_logger* g_logger_section; // DBG_SECTIONS_NUMBER of them, by section

// Creates the loggers for the application `project_name`. False after reporting "out of memory" to
// the system log; what was created until then stays for logger_cleanup.
bool logger_init(const char* project_name);

// Destroys the loggers and leaves the globals null. Safe after a failed logger_init.
void logger_cleanup(void);

} // namespace rtls
