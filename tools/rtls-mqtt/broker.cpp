#include "rtls-mqtt/broker.h"

#include "common/texts.h"
#include "tap/failure.h"

#include <fmt/format.h>

#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace mqtt {

using tap::exit_status;
using tap::failure;

static constexpr char certificates_of_the_system[] = "/etc/ssl/certs";

void broker::destroy_client::operator()(mosquitto* client) const noexcept
{
    mosquitto_destroy(client);
    mosquitto_lib_cleanup(); // counts: as often as it was initialised
}

// What the library calls, within work(). Nothing is thrown through it: work() throws it on.
struct broker::callbacks {
    template <typename Action>
    static void guarded(void* object, Action act) noexcept
    {
        auto& it = *static_cast<broker*>(object);
        try {
            act(it);
        } catch (...) {
            it.m_caught = std::current_exception();
        }
    }

    static void on_connect(mosquitto*, void* object, int code) noexcept
    {
        guarded(object, [&](broker& it) { code == 0 ? it.note_let_in() : it.note_refused(code); });
    }
    // Of QoS 0 when it is written, of QoS 1 when it is acknowledged.
    static void on_publish(mosquitto*, void* object, int) noexcept
    {
        guarded(object, [](broker& it) {
            if (it.m_under_way > 0)
                --it.m_under_way;
            ++it.m_handed_over;
        });
    }
    static void on_message(mosquitto*, void* object, const mosquitto_message* message) noexcept
    {
        guarded(object, [&](broker& it) {
            const auto* payload = static_cast<const char*>(message->payload);
            it.m_take(
                {message->topic,
                 payload ? std::string(payload, static_cast<size_t>(message->payloadlen)) : std::string{},
                 message->retain});
        });
    }
    static void on_log(mosquitto*, void* object, int level, const char* text) noexcept
    {
        if (level == MOSQ_LOG_ERR)
            guarded(object, [&](broker& it) { it.m_library_log = tools::printable(text); });
    }
};

broker::broker(const broker_options& options, note_function note, message_function take)
    : m_options(options), m_note(std::move(note)), m_take(std::move(take)),
      m_back_off(back_off::seconds{options.retry}, back_off::seconds{options.retry_max})
{
    mosquitto_lib_init();
    m_client.reset(mosquitto_new(options.client_id.c_str(), true, this));
    if (!m_client) {
        mosquitto_lib_cleanup();
        throw std::bad_alloc();
    }
    set_up();
}

broker::~broker() = default;

static void require_success(int error)
{
    if (error == MOSQ_ERR_NOMEM)
        throw std::bad_alloc();
    if (error != MOSQ_ERR_SUCCESS)
        throw failure(exit_status::usage,
                      fmt::format("the broker's options cannot be used: {}", mosquitto_strerror(error)));
}

void broker::set_up()
{
    mosquitto* const client = m_client.get();
    mosquitto_connect_callback_set(client, callbacks::on_connect);
    mosquitto_publish_callback_set(client, callbacks::on_publish);
    mosquitto_message_callback_set(client, callbacks::on_message);
    mosquitto_log_callback_set(client, callbacks::on_log);
    require_success(mosquitto_max_inflight_messages_set(client, window));
    require_success(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1));
    const publication& will = m_options.will;
    require_success(mosquitto_will_set(client, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                       will.payload.data(), m_options.qos, will.is_retained));
    if (m_options.who)
        require_success(
            mosquitto_username_pw_set(client, m_options.who->user.c_str(), m_options.who->password.c_str()));
    if (m_options.tls.is_wanted)
        set_up_tls();
}

static const char* or_null(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

void broker::set_up_tls()
{
    const tls_files& files = m_options.tls;
    const int error = mosquitto_tls_set(m_client.get(), or_null(files.ca),
                                        files.ca.empty() ? certificates_of_the_system : nullptr,
                                        or_null(files.certificate), or_null(files.key), nullptr);
    if (error == MOSQ_ERR_INVAL)
        throw failure(exit_status::usage,
                      "a file of --ca, --client-certificate or --client-key cannot be read");
    require_success(error);
}

// --- Coming and going

void broker::connect()
{
    m_refusal.clear();
    m_library_log.clear();
    mosquitto* const client = m_client.get();
    const int error = m_has_tried ? mosquitto_reconnect_async(client)
                                  : mosquitto_connect_async(client, m_options.where.host.c_str(),
                                                            m_options.where.port, m_options.keep_alive);
    m_has_tried = true;
    m_is_connecting = error == MOSQ_ERR_SUCCESS;
    if (!m_is_connecting)
        lose(error);
}

// Called right behind the library, whose errno is still there.
std::string broker::reason_of(int error) const
{
    const std::string system = std::strerror(errno);
    if (!m_refusal.empty())
        return m_refusal;
    if (!m_library_log.empty() && error == MOSQ_ERR_TLS)
        return m_library_log;
    std::string reason = error == MOSQ_ERR_ERRNO ? system : mosquitto_strerror(error);
    if (reason.ends_with('.'))
        reason.pop_back();
    return reason;
}

// With QoS 1 the library keeps what is under way, and sends it again.
void broker::lose(int error)
{
    m_reason = reason_of(error);
    m_is_online = m_is_connecting = false;
    if (m_options.qos == 0)
        m_cut_off += std::exchange(m_under_way, 0);
    std::uniform_real_distribution<double> luck{0, 1};
    m_due = clock::now() + std::chrono::duration_cast<clock::duration>(m_back_off.next(luck(m_luck)));
    if (m_reason != m_said)
        m_note(why_not() + "; trying again");
    m_said = m_reason;
}

std::string broker::why_not() const
{
    return fmt::format("no connection with the broker at {}: {}", to_text(m_options.where),
                       m_reason.empty() ? "it has not answered" : m_reason);
}

void broker::note_let_in()
{
    m_is_online = true;
    ++m_times_let_in;
    m_back_off.reset();
    m_note(fmt::format("connected to the broker at {}", to_text(m_options.where)));
    m_said.clear();
    if (!m_options.commands.empty()) // at most once: what comes twice would be done twice
        mosquitto_subscribe(m_client.get(), nullptr, m_options.commands.c_str(), 0);
}

void broker::note_refused(int code)
{
    m_refusal = mosquitto_connack_string(code);
    if (m_refusal.ends_with('.'))
        m_refusal.pop_back();
}

void broker::throw_what_was_caught()
{
    if (const auto caught = std::exchange(m_caught, nullptr))
        std::rethrow_exception(caught);
}

// Why a connection that is being made has failed; empty: it has not.
static std::string failure_of(int fd)
{
    pollfd entry{fd, 0, 0};
    if (::poll(&entry, 1, 0) != 1 || (entry.revents & (POLLERR | POLLHUP)) == 0)
        return "";
    int error = 0;
    socklen_t size = sizeof error;
    const bool is_known = ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
    return is_known ? std::strerror(error) : "the connection cannot be made";
}

// With TLS the library would take a connection that cannot be made for one that needs time, and ask again at once.
void broker::turn_library()
{
    if (!m_is_online)
        m_refusal = failure_of(mosquitto_socket(m_client.get()));
    if (!m_refusal.empty())
        lose(MOSQ_ERR_CONN_LOST);
    else if (const int error = mosquitto_loop(m_client.get(), 0, 1); error != MOSQ_ERR_SUCCESS)
        lose(error);
}

void broker::work()
{
    if (!m_is_connecting) {
        if (clock::now() < m_due)
            return;
        connect();
    }
    if (m_is_connecting)
        turn_library();
    throw_what_was_caught();
}

tap::other_descriptor broker::wanted() const
{
    if (!m_is_connecting)
        return {};
    const int writing = mosquitto_want_write(m_client.get()) ? POLLOUT : 0;
    return {mosquitto_socket(m_client.get()), static_cast<short>(POLLIN | writing)};
}

// --- Publishing

static bool is_of_connection(int error)
{
    return error == MOSQ_ERR_NO_CONN || error == MOSQ_ERR_CONN_LOST || error == MOSQ_ERR_ERRNO ||
           error == MOSQ_ERR_TLS;
}

void broker::publish(const publication& it)
{
    ++m_under_way; // before: the library may be done with it before it returns
    const int error =
        mosquitto_publish(m_client.get(), nullptr, it.topic.c_str(), static_cast<int>(it.payload.size()),
                          it.payload.data(), m_options.qos, it.is_retained);
    const bool is_kept =
        error == MOSQ_ERR_SUCCESS || is_of_connection(error); // work() sees that it has ended
    if (!is_kept) {
        --m_under_way;
        ++m_cut_off;
    }
    throw_what_was_caught();
}

void broker::leave()
{
    if (m_is_online && mosquitto_disconnect(m_client.get()) == MOSQ_ERR_SUCCESS)
        mosquitto_loop(m_client.get(), 0, 1);
    m_is_online = m_is_connecting = false;
}

} // namespace mqtt
