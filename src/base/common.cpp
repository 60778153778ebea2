#include "base/common.h"

#include "base/bytes.h"
#include "base/logger.h"

#include <zmq.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace rtls {

const char* const dbg_section_name[DBG_SECTIONS_NUMBER] = {"raw",       "parsing", "terminal", "win",
                                                           "discovery", "develop", "ul_tdoa"};

std::atomic<uint16_t> debug_mask{0};

namespace {

// A line of the debug stream, with the terminating zero that is not sent; longer lines are cut.
constexpr size_t stream_line_size = 2048;

// One episode for all threads and sockets: operators are told once that lines get lost.
std::atomic<bool> stream_overflowed{false};

tav_component_logger section_logger(dbg_section_t section)
{
    return g_logger_section ? g_logger_section[section] : nullptr;
}

bool is_streamed(dbg_section_t section)
{
    return (debug_mask.load(std::memory_order_relaxed) >> section & 1) != 0;
}

// Renders the coloured line into `line` and returns its length.
size_t render_line(char (&line)[stream_line_size], tav_timestamp_t timestamp, const char* channel,
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

void note_sent()
{
    if (stream_overflowed.load(std::memory_order_relaxed) &&
        stream_overflowed.exchange(false, std::memory_order_relaxed))
        logger_error(g_logger, "Exemption debugging queue!"); // sic: the end of an overflow
}

void note_not_sent(const char* function)
{
    if (errno != EAGAIN)
        log_call_error(function, "zframe_send");
    else if (!stream_overflowed.exchange(true, std::memory_order_relaxed))
        logger_error(g_logger, "Overflow debugging queue!");
}

// The log lines name CZMQ's calls, by which operators know these failures.
void send_line(zsock_t* dbg_sock, const char* function, const char* line, size_t length)
{
    zmq_msg_t frame;
    if (zmq_msg_init_size(&frame, length) != 0) {
        log_call_error(function, "zframe_from");
        return;
    }
    memcpy(zmq_msg_data(&frame), line, length);
    if (zmq_msg_send(&frame, zsock_resolve(dbg_sock), ZMQ_DONTWAIT) >= 0) {
        note_sent();
        return;
    }
    note_not_sent(function);
    zmq_msg_close(&frame);
}

__attribute__((format(printf, 5, 0))) void dbg_print_ts_impl(zsock_t* dbg_sock, tav_timestamp_t timestamp,
                                                             dbg_section_t section, const char* channel,
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

// Eight tables of the reflected polynomial: table 0 is the bytewise one, table k advances a byte by
// k more zero bytes, so that eight bytes are folded in at once.
using crc_table_set = std::array<std::array<uint32_t, 256>, 8>;

constexpr crc_table_set make_crc_tables()
{
    crc_table_set tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320U : crc >> 1;
        tables[0][i] = crc;
    }
    for (size_t k = 1; k < tables.size(); ++k)
        for (size_t i = 0; i < 256; ++i)
            tables[k][i] = tables[k - 1][i] >> 8 ^ tables[0][tables[k - 1][i] & 0xFF];
    return tables;
}

constexpr crc_table_set crc_tables = make_crc_tables();

constexpr uint32_t crc_fold_eight(uint32_t crc, bytes_view eight)
{
    const auto& t = crc_tables;
    const uint32_t low = load_le32(eight, 0) ^ crc;
    const uint32_t high = load_le32(eight, 4);
    return t[7][low & 0xFF] ^ t[6][low >> 8 & 0xFF] ^ t[5][low >> 16 & 0xFF] ^ t[4][low >> 24] ^
           t[3][high & 0xFF] ^ t[2][high >> 8 & 0xFF] ^ t[1][high >> 16 & 0xFF] ^ t[0][high >> 24];
}

constexpr uint8_t no_digit = 0xFF;

// By character: the hex digit's value, or no_digit.
constexpr std::array<uint8_t, 256> make_digit_values()
{
    std::array<uint8_t, 256> values{};
    values.fill(no_digit);
    for (uint8_t i = 0; i < 10; ++i)
        values[size_t{'0'} + i] = i;
    for (uint8_t i = 0; i < 6; ++i)
        values[size_t{'a'} + i] = values[size_t{'A'} + i] = static_cast<uint8_t>(10 + i);
    return values;
}

constexpr auto digit_values = make_digit_values();

} // namespace

bool dbg_is_wanted(dbg_section_t section)
{
    return is_streamed(section) || logger_debug_is_wanted(section_logger(section));
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

void log_call_error(const char* function, const char* call)
{
    const int error = errno;
    logger_error(g_logger, "%s: %s: %d, %s", function, call, error, zmq_strerror(error));
    errno = error;
}

void log_system_call_error(const char* function, const char* call)
{
    const int error = errno;
    char text[256];
    logger_error(g_logger, "%s: %s: %d, %s", function, call, error, strerror_r(error, text, sizeof text));
    errno = error;
}

int zloop_end_event(zloop_t* /*loop*/, zsock_t* /*reader*/, void* /*argument*/)
{
    return -1;
}

uint32_t crc32_byte(const uint8_t* p, uint32_t bytelength)
{
    if (!p) {
        logger_error(g_logger, str_null_pointer, __func__);
        return 0;
    }
    uint32_t crc = 0xFFFFFFFFU;
    bytes_view rest{p, bytelength};
    for (; rest.size() >= 8; rest = rest.subspan(8))
        crc = crc_fold_eight(crc, rest.first(8));
    for (const uint8_t b : rest)
        crc = crc >> 8 ^ crc_tables[0][(crc ^ b) & 0xFF];
    return ~crc;
}

ssize_t string_to_uint8_arr(const char* hex_string, uint8_t* pret, ssize_t max_size)
{
    if (!hex_string || !pret) {
        logger_error(g_logger, str_null_pointer, __func__);
        return 0;
    }
    ssize_t size = 0;
    int high = -1; // the first digit of a pair; -1 between pairs
    for (const char* p = hex_string; *p != '\0' && size <= max_size; ++p) {
        const uint8_t digit = digit_values[static_cast<uint8_t>(*p)];
        if (digit == no_digit) {
            // As a signed char, whatever the platform's char is: a byte above 0x7F prints eight digits.
            logger_error(g_logger, "%s: Invalid input data: [%02X]", __func__,
                         static_cast<unsigned>(static_cast<signed char>(*p)));
            return 0;
        }
        if (high < 0) {
            high = digit;
        } else {
            pret[size++] = static_cast<uint8_t>(high << 4 | digit);
            high = -1;
        }
    }
    return size;
}

uint8_t get_next_rpl_version(void)
{
    static uint8_t next = 240;
    const uint8_t version = next++; // 255 is followed by 0
    if (version == 127)
        next = 0;
    return version;
}

} // namespace rtls
