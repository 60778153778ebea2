#include "base/common.h"

#include "base/counter.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/overflow_watch.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace rtls {

const char* const dbg_section_name[DBG_SECTIONS_NUMBER] = {"raw",       "parsing", "terminal", "win",
                                                           "discovery", "develop", "ul_tdoa"};

std::atomic<uint16_t> debug_mask{0};

// A line of the debug stream, with the terminating zero that is not sent; longer lines are cut.
static constexpr size_t stream_line_size = 2048;

// One for all threads and sockets: operators are told once that lines get lost.
static overflow_watch stream_watch{"Overflow debugging queue!", "Exemption debugging queue!",
                                   "debugging queue"};

static tav_component_logger section_logger(dbg_section_t section)
{
    return g_logger_section ? g_logger_section[section] : nullptr;
}

static bool is_streamed(dbg_section_t section)
{
    return (debug_mask.load(std::memory_order_relaxed) >> section & 1) != 0;
}

// Renders the coloured line into `line` and returns its length.
static size_t render_line(char (&line)[stream_line_size], tav_timestamp_t timestamp, const char* channel,
                          const char* message)
{
    const auto seconds = static_cast<time_t>(timestamp.seconds);
    tm utc{};
    gmtime_r(&seconds, &utc);
    char date[20];
    strftime(date, sizeof date, "%m-%d %H:%M:%S", &utc);
    snprintf(line, sizeof line, "%s%s.%03d%s %s%s:%s %s\n", "\033[36m", date,
             static_cast<int>(timestamp.milliseconds), "\033[0m", "\033[35m", channel, "\033[0m", message);
    return strlen(line); // what snprintf returns is the length before the cut
}

static shared_counter failed_lines;

uint64_t dbg_lines_failed() noexcept
{
    return failed_lines.value();
}

// The log lines name CZMQ's calls, by which operators know these failures.
static void send_line(zsock_t* dbg_sock, const char* function, const char* line, size_t length)
{
    message_part part{bytes_view{reinterpret_cast<const uint8_t*>(line), length}};
    if (part.is_made() && part.send(zsock_resolve(dbg_sock)))
        return stream_watch.accepted();
    if (!part.is_made() || errno != EAGAIN)
        failed_lines.add();
    if (part.is_made())
        stream_watch.refused(function, "zframe_send");
    else
        log_call_error(function, "zframe_from");
}

static __attribute__((format(printf, 5, 0))) void
dbg_print_ts_impl(zsock_t* dbg_sock, tav_timestamp_t timestamp, dbg_section_t section, const char* channel,
                  const char* format, va_list args)
{
    char* message = zsys_vprintf(format, args);
    if (!message)
        return;
    logger_debug_ts(section_logger(section), timestamp, "%s: %s", channel, message);
    if (dbg_sock && is_streamed(section)) {
        char line[stream_line_size];
        const size_t length = render_line(line, timestamp, channel, message);
        send_line(dbg_sock, __func__, line, length);
    }
    zstr_free(&message);
}

static thread_local bool dbg_is_held = false;
static shared_counter held_lines;

void dbg_hold(bool is_held) noexcept
{
    dbg_is_held = is_held;
}

namespace {

// What is known, in a turn, of whether the logger wants debug records: of all sections', which are parts of one.
enum class log_wants : uint8_t { unasked, records, none };

} // namespace

static thread_local unsigned dbg_turns = 0;
static thread_local log_wants log_in_turn = log_wants::unasked;

dbg_turn::dbg_turn() noexcept
{
    if (dbg_turns++ == 0)
        log_in_turn = log_wants::unasked;
}

dbg_turn::~dbg_turn()
{
    --dbg_turns;
}

static bool has_log(dbg_section_t section)
{
    if (dbg_turns == 0)
        return logger_debug_is_wanted(section_logger(section));
    if (log_in_turn == log_wants::unasked)
        log_in_turn = logger_debug_is_wanted(section_logger(section)) ? log_wants::records : log_wants::none;
    return log_in_turn == log_wants::records;
}

static bool has_listener(dbg_section_t section)
{
    return is_streamed(section) || has_log(section);
}

bool dbg_is_heard(dbg_section_t section)
{
    return !dbg_is_held && has_listener(section);
}

bool dbg_is_wanted(dbg_section_t section)
{
    if (dbg_is_held && has_listener(section))
        held_lines.add();
    return dbg_is_heard(section);
}

tav_timestamp_t get_current_time(void)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<uint32_t>(now.tv_nsec / 1'000'000)};
}

void dbg_print(zsock_t* dbg_sock, dbg_section_t section, const char* channel, const char* format, ...)
{
    if (!dbg_is_wanted(section))
        return;
    va_list args;
    va_start(args, format);
    dbg_print_ts_impl(dbg_sock, get_current_time(), section, channel, format, args);
    va_end(args);
}

void dbg_print_ts(zsock_t* dbg_sock, tav_timestamp_t timestamp, dbg_section_t section, const char* channel,
                  const char* format, ...)
{
    if (!dbg_is_wanted(section))
        return;
    va_list args;
    va_start(args, format);
    dbg_print_ts_impl(dbg_sock, timestamp, section, channel, format, args);
    va_end(args);
}

uint64_t dbg_lines_lost() noexcept
{
    return stream_watch.lost();
}

uint64_t dbg_lines_held() noexcept
{
    return held_lines.value();
}

void dbg_stream_stopping() noexcept
{
    stream_watch.stopping();
}

errno_text::errno_text(int error) noexcept : m_text(strerror_r(error, m_buffer, sizeof m_buffer)) {}

void log_call_error(const char* function, const char* call)
{
    const int error = errno;
    logger_error(g_logger, "%s: %s: %d, %s", function, call, error, zmq_strerror(error));
    errno = error;
}

void log_system_call_error(const char* function, const char* call)
{
    const int error = errno;
    logger_error(g_logger, "%s: %s: %d, %s", function, call, error, errno_text{error}.c_str());
    errno = error;
}

int zloop_end_event(zloop_t* /*loop*/, zsock_t* /*reader*/, void* /*argument*/)
{
    return -1;
}

} // namespace rtls
