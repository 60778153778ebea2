#include "http/http_door.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "http/answer_pool.h"
#include "http/connection.h"
#include "net/descriptors.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <list>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace rtls {

static constexpr int listen_backlog = 64;
static constexpr int64_t longest_wait_ms = 60'000;
static constexpr int64_t pause_of_listening_ms = 100; // when there is no descriptor for a newcomer
static constexpr int pause_without_memory_ms = 100;
static constexpr size_t connections_of_reserve =
    4; // of the last descriptors, for whoever looks what is wrong

static in_addr address_of(const std::string& text)
{
    in_addr address{htonl(INADDR_ANY)};
    if (text != "*")
        inet_pton(AF_INET, text.c_str(), &address); // read_http_rules has checked it
    return address;
}

static unique_fd open_listener(const http_rules& rules)
{
    unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(rules.port);
    address.sin_addr = address_of(rules.address);
    const int on = 1; // a port in use is refused all the same; one whose connections have just ended is not
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd.get(), listen_backlog) != 0)
        return {};
    return fd;
}

// The door's own thread works on all of it, but for what the pool has.
class http_door::state {
public:
    state(responder& pages, http_refusals& refusals, http_times times)
        : m_times(times), m_refusals(refusals), m_pool(pages)
    {
    }
    ~state();
    state(const state&) = delete;
    state& operator=(const state&) = delete;

    bool open(const http_rules& rules);

private:
    void run() noexcept;
    void turn();
    void pause() noexcept;
    std::vector<pollfd> what_to_wait_for() const;
    int patience_ms(int64_t now) const;
    void accept_all(int64_t now);
    void take_in(unique_fd fd, int64_t now);
    void give_up_most_silent(int64_t now);
    void refuse(int fd, http_refusal why, int64_t now);
    void send_answers(int64_t now);
    void serve(connection& who, int64_t now);
    void drop_ended();

    const http_times m_times;
    http_refusals& m_refusals;
    unique_fd m_listener;
    unique_fd m_wake_up{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
    std::atomic<bool> m_is_stopping{false};
    std::list<connection> m_connections; // who has been silent for longest first
    uint64_t m_connections_so_far = 0;
    int64_t m_listens_from = 0;
    answer_pool m_pool;
    std::thread m_thread;
};

bool http_door::state::open(const http_rules& rules)
{
    m_listener = open_listener(rules);
    if (!m_listener || !m_wake_up) {
        const int code = errno;
        logger_error(g_logger, "http: port %u of %s cannot be opened: %d, %s",
                     static_cast<unsigned>(rules.port), rules.address.c_str(), code,
                     errno_text{code}.c_str());
        return false;
    }
    try {
        m_pool.start(m_wake_up.get());
        m_thread = std::thread{[this] { run(); }};
    } catch (const std::system_error& failure) {
        logger_error(g_logger, "http: no thread can be started: %s", failure.what());
        return false;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "http");
        return false;
    }
    return true;
}

http_door::state::~state()
{
    m_is_stopping = true;
    (void)eventfd_write(m_wake_up.get(), 1);
    if (m_thread.joinable())
        m_thread.join();
    m_pool.stop();
}

void http_door::state::run() noexcept
{
    block_all_signals();
    pthread_setname_np(pthread_self(), "rtls-http");
    while (!m_is_stopping) {
        try {
            turn();
        } catch (const std::bad_alloc&) {
            logger_error(g_logger, str_out_of_memory, "http");
            m_refusals.note_out_of_memory(m_connections.size());
            m_connections.clear(); // the answers under way find nobody
            pause();
        }
    }
}

// Memory may be short for long: it would be asked for ever.
void http_door::state::pause() noexcept
{
    pollfd woken{m_wake_up.get(), POLLIN, 0};
    (void)poll(&woken, 1, pause_without_memory_ms);
    eventfd_t number = 0;
    (void)eventfd_read(m_wake_up.get(), &number); // of an answer, for which nobody waits any more, or the end
}

void http_door::state::turn()
{
    std::vector<pollfd> waited = what_to_wait_for();
    (void)poll(waited.data(), waited.size(), patience_ms(zclock_mono()));
    const int64_t now = zclock_mono();
    eventfd_t number = 0;
    (void)eventfd_read(m_wake_up.get(), &number);
    size_t at = 2;
    for (connection& who : m_connections)
        if (waited[at++].revents != 0 || who.is_late(now))
            serve(who, now);
    send_answers(now);
    drop_ended();
    if (waited[0].revents != 0)
        accept_all(now);
}

// The listener, what wakes us up, and the connections in their order.
std::vector<pollfd> http_door::state::what_to_wait_for() const
{
    std::vector<pollfd> waited;
    waited.reserve(m_connections.size() + 2);
    const bool listens = zclock_mono() >= m_listens_from;
    waited.push_back({listens ? m_listener.get() : -1, POLLIN, 0});
    waited.push_back({m_wake_up.get(), POLLIN, 0});
    for (const connection& who : m_connections)
        waited.push_back({who.fd(), who.events(), 0});
    return waited;
}

// -1: nobody is waited for.
int http_door::state::patience_ms(int64_t now) const
{
    int64_t until = m_listens_from > now ? m_listens_from : no_deadline;
    for (const connection& who : m_connections)
        until = std::min(until, who.deadline());
    return until == no_deadline ? -1 : static_cast<int>(std::clamp<int64_t>(until - now, 0, longest_wait_ms));
}

void http_door::state::accept_all(int64_t now)
{
    for (size_t i = 0; i < connections_limit; ++i) {
        unique_fd fd{accept4(m_listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
        if (fd)
            take_in(std::move(fd), now);
        else if (errno != ECONNABORTED && errno != EINTR) {
            if (errno != EAGAIN) // it would be asked for ever, in vain
                m_listens_from = now + pause_of_listening_ms;
            return;
        }
    }
}

void http_door::state::take_in(unique_fd fd, int64_t now)
{
    if (is_reserved_descriptor(fd.get()) && m_connections.size() >= connections_of_reserve)
        return refuse(fd.get(), http_refusal::descriptors, now);
    if (m_connections.size() >= connections_limit)
        give_up_most_silent(now);
    const int on = 1;
    (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_connections.emplace_back(std::move(fd), ++m_connections_so_far, m_times, now);
}

// Whoever waits for a page that is being made comes last.
void http_door::state::give_up_most_silent(int64_t now)
{
    auto silent =
        std::ranges::find_if(m_connections, [](const connection& who) { return !who.is_waiting(); });
    if (silent == m_connections.end())
        silent = m_connections.begin();
    refuse(silent->fd(), http_refusal::full, now);
    m_connections.erase(silent);
}

void http_door::state::refuse(int fd, http_refusal why, int64_t now)
{
    sockaddr_in who{}; // stays 0.0.0.0 when he has gone already
    socklen_t size = sizeof who;
    (void)getpeername(fd, reinterpret_cast<sockaddr*>(&who), &size);
    m_refusals.note(why, who.sin_addr, now);
}

// What has come from a client, or can be sent to him, or his time is over.
void http_door::state::serve(connection& who, int64_t now)
{
    if (std::optional<std::string> head = who.serve(now))
        if (!m_pool.order({who.number(), *std::move(head)})) {
            refuse(who.fd(), http_refusal::busy, now);
            who.answer({refusal_bytes(503, "too many requests wait"), false, {}}, now);
        }
    if (const std::optional<http_refusal> why = who.take_refusal())
        refuse(who.fd(), *why, now);
}

void http_door::state::send_answers(int64_t now)
{
    for (answer_pool::made& made : m_pool.take_made()) {
        const auto who = std::ranges::find(m_connections, made.connection, &connection::number);
        if (who == m_connections.end())
            continue;
        if (made.answer.bytes.empty())
            m_refusals.note_out_of_memory(1);
        if (made.answer.refused)
            refuse(who->fd(), *made.answer.refused, now);
        who->answer(std::move(made.answer), now);
        m_connections.splice(m_connections.end(), m_connections, who);
        serve(m_connections.back(), now);
    }
}

void http_door::state::drop_ended()
{
    m_connections.remove_if([](const connection& who) { return who.has_ended(); });
}

// --- the door

http_door::http_door(responder& pages, http_refusals& refusals, http_times times)
    : m_state(std::make_unique<state>(pages, refusals, times))
{
}

http_door::~http_door() = default;

bool http_door::open(const http_rules& rules)
{
    return m_state->open(rules);
}

} // namespace rtls
