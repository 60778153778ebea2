// common - the debug stream, error lines, and what else every service needs.
//
// Threads    Any. A debug-print socket belongs to the thread that prints with it.
// Failures   Nothing throws, nothing waits.
#pragma once

#include "core/ctimestamp.h"

#include <czmq.h>

#include <atomic>
#include <cstdint>

namespace rtls {

// Texts shared by all modules; the argument is the reporting function's name.
inline constexpr char str_null_pointer[] = "%s: null pointer!";
inline constexpr char str_out_of_memory[] = "%s: out of memory!";

// Debug sections: classes of diagnostic lines that operators switch on and off. The numbers are the
// bits of debug_mask.
enum dbg_section_t {
    DBG_RAW = 0,
    DBG_PARSING = 1,
    DBG_TERMINAL = 2,
    DBG_WIN = 3,
    DBG_DISCOVERY = 4,
    DBG_DEVELOP = 5,
    DBG_UL_TDOA = 6, // kept for scripts and configurations: UL-TDOA is printed in DBG_PARSING
    DBG_SECTIONS_NUMBER = 7
};

// The sections' names, by section: configuration keys "debug/<name>" and the words of `dbg`.
extern const char* const dbg_section_name[DBG_SECTIONS_NUMBER];

// Bit i set: lines of section i also go to the debug stream. Any thread reads and writes it.
extern std::atomic<uint16_t> debug_mask;

// Whether a line of `section` would reach anybody now: the stream, the broker or the system log.
// Ask before making an expensive argument (a hex dump); dbg_print asks by itself. Whoever asks has a line: one that
// is left out is counted.
bool dbg_is_wanted(dbg_section_t section);
// The same for who has none yet: nothing is counted.
bool dbg_is_heard(dbg_section_t section);

// While held, no line of the calling thread is wanted by anybody: for who has fallen behind with what peers
// wait for. The debug stream is lossy anyway.
void dbg_hold(bool is_held) noexcept;

// For as long as it lives, the calling thread asks its logger once whether debug records are wanted, and goes by
// the answer. The question costs libc's lock, and a message or a command has several lines. For one turn of a loop,
// which is short: what is switched on meanwhile shows from the next turn on. The stream's sections are asked for each
// line, as ever.
class dbg_turn {
public:
    dbg_turn() noexcept;
    ~dbg_turn();
    dbg_turn(const dbg_turn&) = delete;
    dbg_turn& operator=(const dbg_turn&) = delete;
};

// The real-time clock, cut to milliseconds.
tav_timestamp_t get_current_time(void);

// Logs "<channel>: <message>" to the section's logger and, when the section is enabled, pushes the
// coloured line to the debug stream. Never blocks: a full stream drops the line, and its overflow is
// reported once per episode.
// dbg_sock  the calling thread's own PUSH socket on debug_stream_endpoint
// channel   short label of the source, such as "CONS" or "SLIP"
void dbg_print(zsock_t* dbg_sock, dbg_section_t section, const char* channel, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The same, stamped with the time given instead of now.
void dbg_print_ts(zsock_t* dbg_sock, tav_timestamp_t timestamp, dbg_section_t section, const char* channel,
                  const char* format, ...) __attribute__((format(printf, 5, 6)));

// Lines that the full debug stream has lost, those that could not be made or sent for another reason, and those
// that were left out while they were held (dbg_hold); of all threads.
uint64_t dbg_lines_lost() noexcept;
uint64_t dbg_lines_failed() noexcept;
uint64_t dbg_lines_held() noexcept;

// The debug stream is no longer drained: says what an overflow of it that has not ended has cost until now.
void dbg_stream_stopping() noexcept;

// The system's text for an errno, whole for any number.
class errno_text {
public:
    explicit errno_text(int error) noexcept;
    errno_text(const errno_text&) = delete;
    errno_text& operator=(const errno_text&) = delete;
    const char* c_str() const noexcept { return m_text; }

private:
    char m_buffer[64]; // used for unknown numbers only
    const char* m_text;
};

// Logs "<function>: <call>: <errno>, <text>" as an error, with errno as it is at the call and its text
// by zmq_strerror. Leaves errno as it was.
void log_call_error(const char* function, const char* call);

// The same for a call of the operating system, with strerror's text: the two word some errors
// differently (EHOSTUNREACH).
void log_system_call_error(const char* function, const char* call);

// zloop reader that ends its loop (always -1) and reads nothing; for the actors' command pipes.
int zloop_end_event(zloop_t* loop, zsock_t* reader, void* argument);

} // namespace rtls
