#include "base/common.h"

#include "base/bytes.h"
#include "base/counter.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/overflow_watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

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

namespace {

// A second's date and time of day as the stream shows it, in UTC.
struct second_text {
    explicit second_text(time_t seconds) : of(seconds)
    {
        tm utc{};
        gmtime_r(&seconds, &utc);
        strftime(text, sizeof text, "%m-%d %H:%M:%S", &utc);
    }

    time_t of;
    char text[20];
};

// A line of the stream in the making.
class stream_line {
public:
    stream_line& add(std::string_view part)
    {
        const size_t fit = std::min(part.size(), m_text.size() - m_size);
        std::memcpy(m_text.data() + m_size, part.data(), fit);
        m_size += fit;
        return *this;
    }
    // With zeros in front, up to three digits.
    stream_line& add_milliseconds(uint32_t value)
    {
        char digits[10];
        const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        const std::string_view shown{digits, static_cast<size_t>(end - digits)};
        return add(std::string_view{"00"}.substr(std::min(shown.size() - 1, size_t{2}))).add(shown);
    }
    bytes_view bytes() const { return {reinterpret_cast<const uint8_t*>(m_text.data()), m_size}; }

private:
    std::array<char, stream_line_size - 1> m_text; // not cleared: what is read is written
    size_t m_size = 0;
};

// "channel: message", composed once for the logger and for the stream. Nearly all find room on the stack.
class debug_text {
public:
    __attribute__((format(printf, 3, 0)))
    debug_text(std::string_view channel, const char* format, va_list args)
        : m_head(channel.size() + separator.size())
    {
        va_list again;
        va_copy(again, args);
        if (!compose(m_usual.data(), m_usual.size(), channel, format, args)) {
            m_long.reset(new (std::nothrow) char[m_size]);
            if (m_long)
                (void)compose(m_long.get(), m_size, channel, format, again);
        }
        va_end(again);
    }
    debug_text(const debug_text&) = delete;
    debug_text& operator=(const debug_text&) = delete;

    // False when memory was short.
    bool is_made() const { return m_text != nullptr; }
    const char* c_str() const { return m_text; }
    const char* message() const { return m_text + m_head; }

private:
    static constexpr std::string_view separator = ": ";

    // False when there is no room; m_size is what is needed then, with the terminating zero.
    __attribute__((format(printf, 5, 0))) bool compose(char* to, size_t room, std::string_view channel,
                                                       const char* format, va_list args)
    {
        const bool has_head = m_head < room;
        char* message = has_head ? to + m_head : to;
        const int size = vsnprintf(has_head ? message : nullptr, has_head ? room - m_head : 0, format, args);
        m_size = m_head + static_cast<size_t>(std::max(size, 0)) + 1;
        if (m_size > room)
            return false;
        if (size < 0)
            *message = '\0';
        std::memcpy(to, channel.data(), channel.size());
        std::memcpy(to + channel.size(), separator.data(), separator.size());
        m_text = to;
        return true;
    }

    std::array<char, 1024> m_usual; // not cleared: what is read is written
    std::unique_ptr<char[]> m_long;
    size_t m_head;
    size_t m_size = 0;
    const char* m_text = nullptr;
};

} // namespace

// A thread's lines come many to a second, and taking a time apart costs more than all the rest of one, with a lock
// of libc's.
static std::string_view text_of_second(time_t seconds)
{
    static thread_local second_text last{seconds};
    if (last.of != seconds)
        last = second_text{seconds};
    return last.text;
}

// Renders the coloured line.
static void render_line(stream_line& line, tav_timestamp_t timestamp, std::string_view channel,
                        std::string_view message)
{
    line.add("\033[36m").add(text_of_second(static_cast<time_t>(timestamp.seconds)));
    line.add(".").add_milliseconds(timestamp.milliseconds);
    line.add("\033[0m \033[35m").add(channel).add(":\033[0m ").add(message).add("\n");
}

static shared_counter failed_lines;

uint64_t dbg_lines_failed() noexcept
{
    return failed_lines.value();
}

// The log lines name CZMQ's calls, by which operators know these failures.
static void send_line(zsock_t* dbg_sock, const char* function, bytes_view line)
{
    message_part part{line};
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
    static constexpr char as_it_is[] = "%s"; // whose address stands for debug lines in the system log's rate
    const debug_text text{channel, format, args};
    if (!text.is_made())
        return;
    logger_debug_ts(section_logger(section), timestamp, as_it_is, text.c_str());
    if (dbg_sock && is_streamed(section)) {
        stream_line line;
        render_line(line, timestamp, channel, text.message());
        send_line(dbg_sock, __func__, line.bytes());
    }
}

static constinit thread_local bool dbg_is_held = false;
static shared_counter held_lines;

void dbg_hold(bool is_held) noexcept
{
    dbg_is_held = is_held;
}

namespace {

// What is known, in a turn, of whether the logger wants debug records: of all sections', which are parts of one.
enum class log_wants : uint8_t { unasked, records, none };

} // namespace

static constinit thread_local unsigned dbg_turns = 0;
static constinit thread_local log_wants log_in_turn = log_wants::unasked; // as it always is outside of turns

dbg_turn::dbg_turn() noexcept
{
    ++dbg_turns;
}

dbg_turn::~dbg_turn()
{
    if (--dbg_turns == 0)
        log_in_turn = log_wants::unasked;
}

// Not inlined: the question below is asked for each line, and nearly always answered already.
[[gnu::noinline]] static bool ask_log(dbg_section_t section)
{
    const bool wants = logger_debug_is_wanted(section_logger(section));
    if (dbg_turns > 0)
        log_in_turn = wants ? log_wants::records : log_wants::none;
    return wants;
}

static inline bool has_listener(dbg_section_t section)
{
    if (is_streamed(section) || log_in_turn == log_wants::records)
        return true;
    return log_in_turn == log_wants::unasked && ask_log(section);
}

bool dbg_is_heard(dbg_section_t section)
{
    return has_listener(section) && !dbg_is_held;
}

static inline bool is_wanted(dbg_section_t section)
{
    if (!has_listener(section))
        return false;
    if (dbg_is_held)
        held_lines.add();
    return !dbg_is_held;
}

bool dbg_is_wanted(dbg_section_t section)
{
    return is_wanted(section);
}

tav_timestamp_t get_current_time(void)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<uint32_t>(now.tv_nsec / 1'000'000)};
}

void dbg_print(zsock_t* dbg_sock, dbg_section_t section, const char* channel, const char* format, ...)
{
    if (!is_wanted(section))
        return;
    va_list args;
    va_start(args, format);
    dbg_print_ts_impl(dbg_sock, get_current_time(), section, channel, format, args);
    va_end(args);
}

void dbg_print_ts(zsock_t* dbg_sock, tav_timestamp_t timestamp, dbg_section_t section, const char* channel,
                  const char* format, ...)
{
    if (!is_wanted(section))
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
