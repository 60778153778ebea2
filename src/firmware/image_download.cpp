#include "firmware/image_download.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/rate_bound.h"
#include "base/signals.h"

#include "core/thread_annotations.h"

#include <curl/curl.h>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <new>
#include <semaphore>
#include <string>
#include <system_error>
#include <utility>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// File servers of some sites answer browsers only. The blank that "KHTML,like" lacks is on purpose:
// this is the text they know the gateway by.
static constexpr char user_agent[] = "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.31 (KHTML,like Gecko) "
                                     "Chrome/26.0.1410.43 Safari/537.31";

// Not anchored: servers behind rewriting proxies announce the length under longer names as well.
static constexpr char content_length_pattern[] = "Content-Length: ([0-9]+)";

static constexpr char header_callback_name[] = "headerCallback";
static constexpr char write_callback_name[] = "writeMemoryCallback";

static constexpr milliseconds turn_check_interval{100};

// Taken for the length of a transfer.
static std::counting_semaphore<transfers_at_once> download_turns{transfers_at_once};

// What all headers and trailers of a transfer may have, redirects and interim answers included: real ones
// have a hundredth of it.
static constexpr size_t header_limit = size_t{256} * 1024;

// A file server that moves its files sends us on once or twice.
static constexpr long redirects_limit = 10;

// --- image_receiver

image_receiver::image_receiver(const image_download_options& options)
    : m_options{options}, m_content_length{content_length_pattern, REG_EXTENDED | REG_ICASE}
{
}

bool image_receiver::is_ready() const
{
    return m_content_length.is_compiled();
}

bool image_receiver::take_header(std::string_view line) noexcept
try {
    m_header_bytes += line.size();
    if (m_header_bytes > header_limit)
        return false;
    const std::string text{line}; // libcurl's has no terminating zero
    std::array<regmatch_t, 2> groups{};
    if (!m_content_length.search(text.c_str(), groups))
        return true;
    if (m_size > 0) { // a trailer: the buffer is in use
        m_failed = true;
    } else {
        const auto from = static_cast<size_t>(groups[1].rm_so);
        const auto to = static_cast<size_t>(groups[1].rm_eo);
        m_failed = !provide_for(line.substr(from, to - from));
    }
    return !m_failed || !m_options.bad_length_aborts;
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, header_callback_name);
    return false;
}

// Replaces the buffer by one of the announced length, up to the ceiling: a length is only a claim.
bool image_receiver::provide_for(std::string_view digits) noexcept
{
    m_announced = true;
    m_capacity = 0;
    m_memory.reset();

    uint64_t length = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), length);
    if (parsed.ec == std::errc{} && length <= image_size_ceiling)
        m_memory = allocate_image(length);
    if (!m_memory) {
        logger_error(g_logger, str_out_of_memory, header_callback_name);
        return false;
    }
    m_capacity = length;
    return true;
}

bool image_receiver::take_body(std::span<const uint8_t> bytes) noexcept
{
    if (bytes.empty())
        return true;
    if (!m_announced && m_options.reports_missing_length)
        logger_error(g_logger, "%s: memory for the firmware is not allocated!", write_callback_name);
    if (bytes.size() > m_capacity - m_size)
        return false;
    std::memcpy(m_memory.get() + m_size, bytes.data(), bytes.size());
    m_size += bytes.size();
    return true;
}

std::optional<downloaded_image> image_receiver::release()
{
    if (!m_memory)
        m_memory = allocate_image(0);
    if (!m_memory) {
        logger_error(g_logger, str_out_of_memory, m_options.caller);
        note_reason(m_options.reason, "out of memory");
        return std::nullopt;
    }
    return downloaded_image{std::move(m_memory), m_size};
}

// --- libcurl

static size_t headerCallback(char* buffer, size_t size, size_t nitems, void* userdata) noexcept
{
    auto* receiver = static_cast<image_receiver*>(userdata);
    const size_t length = size * nitems;
    return receiver->take_header({buffer, length}) ? length : 0;
}

static size_t writeMemoryCallback(char* contents, size_t csize, size_t nmemb, void* fd) noexcept
{
    auto* receiver = static_cast<image_receiver*>(fd);
    const size_t length = csize * nmemb;
    return receiver->take_body({reinterpret_cast<const uint8_t*>(contents), length}) ? length : 0;
}

// Not zero ends the transfer: a daemon that stops waits for no download.
static int abort_when_interrupted(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept
{
    return is_stop_requested() ? 1 : 0;
}

static CURLcode set_options(CURL* curl, const char* url, image_receiver& receiver, milliseconds timeout)
{
    CURLcode rc = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK)
            rc = curl_easy_setopt(curl, option, value);
    };
    set(CURLOPT_HEADERDATA, static_cast<void*>(&receiver));
    set(CURLOPT_HEADERFUNCTION, &headerCallback);
    set(CURLOPT_WRITEFUNCTION, &writeMemoryCallback);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&receiver));
    set(CURLOPT_USERAGENT, &user_agent[0]);
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, redirects_limit);
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    set(CURLOPT_URL, url);
    // Unauthenticated peers choose the URL: it must not reach other services of this host's network.
    set(CURLOPT_PROTOCOLS_STR, "http,https,file");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    // A name server that is silent must not outlast the time-out: whoever asks it is left behind.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_NOSIGNAL, 1L); // no time-outs by SIGALRM: this is no single-threaded program
    set(CURLOPT_XFERINFOFUNCTION, &abort_when_interrupted);
    set(CURLOPT_NOPROGRESS, 0L);
    return rc;
}

namespace {

struct curl_freed {
    void operator()(char* p) const noexcept { curl_free(p); }
    void operator()(CURL* p) const noexcept { curl_easy_cleanup(p); }
    void operator()(CURLU* p) const noexcept { curl_url_cleanup(p); }
};

} // namespace

static std::unique_ptr<char, curl_freed> url_part(CURLU* url, CURLUPart part)
{
    char* text = nullptr;
    curl_url_get(url, part, &text, CURLU_URLDECODE);
    return std::unique_ptr<char, curl_freed>{text};
}

// Those of the kernel call themselves regular, but reading some of them (/proc/kmsg) waits without end.
static bool is_special_file(const char* path)
{
    struct stat status = {};
    struct statfs system = {};
    if (stat(path, &status) != 0)
        return false; // the transfer itself reports it
    if (!S_ISREG(status.st_mode))
        return true;
    if (statfs(path, &system) != 0)
        return false;
    constexpr decltype(system.f_type) of_the_kernel[] = {
        PROC_SUPER_MAGIC,   SYSFS_MAGIC,         DEBUGFS_MAGIC,    TRACEFS_MAGIC,
        CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, PSTOREFS_MAGIC};
    return std::ranges::find(of_the_kernel, system.f_type) != std::end(of_the_kernel);
}

// A file:// URL of something that is there but no plain file. Opening or reading a pipe or a terminal
// blocks without end, out of the reach of libcurl's time-out.
static bool names_special_file(const char* url)
{
    const std::unique_ptr<CURLU, curl_freed> parsed{curl_url()};
    const unsigned flags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url, flags) != CURLUE_OK)
        return false; // the transfer itself reports it
    const auto scheme = url_part(parsed.get(), CURLUPART_SCHEME);
    const auto path = url_part(parsed.get(), CURLUPART_PATH);
    // A path that cannot be told (it has control characters) may name anything.
    return scheme && std::strcmp(scheme.get(), "file") == 0 && (!path || is_special_file(path.get()));
}

namespace {

struct turn_returned {
    turn_returned() = default;
    ~turn_returned() { download_turns.release(); }
    turn_returned(const turn_returned&) = delete;
    turn_returned& operator=(const turn_returned&) = delete;
};

} // namespace

// Waits in short steps, so as to notice a stop of the daemon.
static CURLcode wait_for_turn(milliseconds timeout)
{
    const auto deadline = steady_clock::now() + timeout;
    while (!download_turns.try_acquire_until(std::min(deadline, steady_clock::now() + turn_check_interval))) {
        if (is_stop_requested())
            return CURLE_ABORTED_BY_CALLBACK;
        if (steady_clock::now() >= deadline)
            return CURLE_OPERATION_TIMEDOUT;
    }
    return CURLE_OK;
}

static transfer_counters counts;

const transfer_counters& image_download_counters() noexcept
{
    return counts;
}

static void count(transfer_outcome outcome)
{
    counts.transfers[static_cast<size_t>(outcome)].add();
}

void image_download_not_begun() noexcept
{
    count(transfer_outcome::failed);
}

static transfer_outcome outcome_of(CURLcode rc)
{
    switch (rc) {
    case CURLE_OK:
        return transfer_outcome::complete;
    case CURLE_OPERATION_TIMEDOUT:
        return transfer_outcome::timed_out;
    case CURLE_ABORTED_BY_CALLBACK:
        return transfer_outcome::stopped;
    default:
        return transfer_outcome::failed;
    }
}

static void count_cost(CURL* curl)
{
    curl_off_t bytes = 0;
    curl_off_t microseconds = 0;
    if (curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &bytes) == CURLE_OK)
        counts.bytes.add(static_cast<uint64_t>(bytes));
    if (curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME_T, &microseconds) == CURLE_OK)
        counts.microseconds.add(static_cast<uint64_t>(microseconds));
}

// --- where images may come from

namespace {

struct source_rules {
    std::vector<std::string> prefixes; // none: from anywhere; written before the first download
    annotated_mutex mutex;
    refusal_episode refusals RTLS_GUARDED_BY(mutex);
};

} // namespace

static source_rules& sources()
{
    static source_rules rules;
    return rules;
}

void image_download_only_from(std::vector<std::string> prefixes)
{
    source_rules& rules = sources();
    rules.prefixes = std::move(prefixes);
    const mutex_guard lock{rules.mutex};
    rules.refusals = {};
}

// What libcurl would make another path of: "..", also with its dots or slashes written as %2e and %2f.
static bool leads_elsewhere(std::string_view url)
{
    static constexpr std::string_view ways[] = {"..", "%2e", "%2E", "%2f", "%2F", "\\"};
    return std::any_of(std::begin(ways), std::end(ways),
                       [url](std::string_view way) { return url.find(way) != std::string_view::npos; });
}

static bool may_come_from(std::string_view url)
{
    const auto& prefixes = sources().prefixes;
    if (prefixes.empty())
        return true;
    return !leads_elsewhere(url) && std::any_of(prefixes.begin(), prefixes.end(), [url](const auto& prefix) {
        return url.starts_with(prefix);
    });
}

// Whoever may ask for images may ask for forbidden ones again and again.
static bool begins_an_episode()
{
    source_rules& rules = sources();
    const mutex_guard lock{rules.mutex};
    return rules.refusals.begins(zclock_mono());
}

void note_reason(std::string* reason, const char* text) noexcept
try {
    if (reason && reason->empty())
        *reason = text;
} catch (const std::bad_alloc&) {
    reason->clear();
}

static void refuse_source(const char* url, const image_download_options& options)
{
    static constexpr char text[] = "firmware does not come from there (firmware_urls)";
    count(transfer_outcome::forbidden);
    if (begins_an_episode())
        logger_error(g_logger, "%s: %s: %s", options.caller, url, text);
    note_reason(options.reason, text);
}

namespace {

// Sees that redirects lead nowhere else, either: libcurl asks it before each connection and each request.
class redirect_guard {
public:
    explicit redirect_guard(CURL* curl) : m_curl(curl) {}

    bool has_refused() const { return m_has_refused; }
    // Where the transfer is, or was to go when it was refused.
    const char* url() const
    {
        char* text = nullptr;
        curl_easy_getinfo(m_curl, CURLINFO_EFFECTIVE_URL, &text);
        return text ? text : "";
    }
    // The first URL has been judged as it was given, before libcurl wrote it its own way.
    bool may_go_on()
    {
        long redirects = 0;
        curl_easy_getinfo(m_curl, CURLINFO_REDIRECT_COUNT, &redirects);
        m_has_refused = m_has_refused || (redirects > 0 && !may_come_from(url()));
        return !m_has_refused;
    }

private:
    CURL* m_curl;
    bool m_has_refused = false;
};

} // namespace

static curl_socket_t open_unless_refused(void* guard, curlsocktype /*purpose*/, curl_sockaddr* peer) noexcept
{
    if (!static_cast<redirect_guard*>(guard)->may_go_on())
        return CURL_SOCKET_BAD;
    return socket(peer->family, peer->socktype | SOCK_CLOEXEC, peer->protocol);
}

// For a connection that is used again.
static int ask_unless_refused(void* guard, char* /*peer*/, char* /*own*/, int /*port*/,
                              int /*own_port*/) noexcept
{
    return static_cast<redirect_guard*>(guard)->may_go_on() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}

static CURLcode set_guard(CURL* curl, redirect_guard& guard)
{
    CURLcode rc = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK)
            rc = curl_easy_setopt(curl, option, value);
    };
    if (sources().prefixes.empty())
        return rc;
    set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(&guard));
    set(CURLOPT_OPENSOCKETFUNCTION, &open_unless_refused);
    set(CURLOPT_PREREQDATA, static_cast<void*>(&guard));
    set(CURLOPT_PREREQFUNCTION, &ask_unless_refused);
    return rc;
}

// Nothing when a redirect led to where images do not come from, which is said.
static std::optional<CURLcode> perform(const char* url, image_receiver& receiver,
                                       const image_download_options& options)
{
    if (const CURLcode rc = wait_for_turn(options.timeout); rc != CURLE_OK)
        return rc;
    const turn_returned turn;
    if (names_special_file(url))
        return CURLE_FILE_COULDNT_READ_FILE;

    const std::unique_ptr<CURL, curl_freed> curl{curl_easy_init()};
    if (!curl)
        return CURLE_FAILED_INIT;
    redirect_guard guard{curl.get()};
    CURLcode rc = set_options(curl.get(), url, receiver, options.timeout);
    if (rc == CURLE_OK)
        rc = set_guard(curl.get(), guard);
    if (rc == CURLE_OK)
        rc = curl_easy_perform(curl.get());
    count_cost(curl.get());
    if (guard.has_refused()) {
        refuse_source(guard.url(), options);
        return std::nullopt;
    }
    return rc == CURLE_OK && receiver.failed() ? CURLE_WRITE_ERROR : rc;
}

std::optional<downloaded_image> image_download(const char* url, const image_download_options& options)
{
    if (!may_come_from(url)) {
        refuse_source(url, options);
        return std::nullopt;
    }
    image_receiver receiver{options};
    if (!receiver.is_ready()) {
        count(transfer_outcome::failed);
        logger_error(g_logger, "%s error regcomp %s", options.caller, errno_text{errno}.c_str());
        note_reason(options.reason, "out of memory");
        return std::nullopt;
    }
    const std::optional<CURLcode> rc = perform(url, receiver, options);
    if (!rc)
        return std::nullopt;
    count(outcome_of(*rc));
    if (*rc != CURLE_OK) {
        logger_error(g_logger, "curl_easy_perform failed: %s", curl_easy_strerror(*rc));
        note_reason(options.reason, curl_easy_strerror(*rc));
        return std::nullopt;
    }
    return receiver.release();
}

} // namespace rtls
